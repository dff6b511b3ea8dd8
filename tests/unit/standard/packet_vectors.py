#!/usr/bin/python3
"""Writes packet_vectors.h: packets as another implementation, asyncssh, encrypts them.

    ./packet_vectors.py > packet_vectors.h && clang-format-19 -i packet_vectors.h
"""
import warnings

warnings.simplefilter("ignore")

from asyncssh.encryption import get_encryption, get_encryption_params

FIRST_SEQUENCE = 0xFFFFFFFE
PACKETS = 3
CTR_MACS = ["hmac-sha2-256-etm@openssh.com", "hmac-sha2-512-etm@openssh.com", "hmac-sha2-256", "hmac-sha2-512",
            "hmac-sha1"]
CIPHERS = [("aes128-gcm@openssh.com", [""]), ("aes256-gcm@openssh.com", [""]),
           ("chacha20-poly1305@openssh.com", [""]), ("aes128-ctr", CTR_MACS), ("aes192-ctr", CTR_MACS),
           ("aes256-ctr", CTR_MACS)]


def pattern(size, start):
    return bytes((start + 7 * i) & 0xFF for i in range(size))


def vector(size):
    """The counter in it wraps after two steps."""
    return pattern(size - 8, 3) + b"\xff" * 7 + b"\xfe" if size else b""


def encrypted_packets(cipher, mac):
    key_size, iv_size, block, mac_key_size, _, outside = get_encryption_params(cipher.encode(), mac.encode())
    state = get_encryption(cipher.encode(), pattern(key_size, 1), vector(iv_size), mac.encode(),
                           pattern(mac_key_size, 2), outside)
    for index in range(PACKETS):
        size = max(block, 8) * (index + 2) - (0 if outside else 4)
        header = size.to_bytes(4, "big")
        sequence = (FIRST_SEQUENCE + index) & 0xFFFFFFFF
        packet, tag = state.encrypt_packet(sequence, header, pattern(size, index))
        yield packet + tag


print("""#ifndef BRANTLE_TESTS_STANDARD_PACKET_VECTORS_H
#define BRANTLE_TESTS_STANDARD_PACKET_VECTORS_H

// Written by packet_vectors.py, which says how the keys and the plain packets are made.

constexpr unsigned int FIRST_SEQUENCE = 0xfffffffe;

struct PacketVector {
    char const* cipher;
    char const* mac;
    char const* packets[3];
};

constexpr PacketVector PACKET_VECTORS[] = {""")
for name, macs in CIPHERS:
    for mac_name in macs:
        print(f'    {{"{name}",\n     "{mac_name}",\n     {{')
        for sealed in encrypted_packets(name, mac_name):
            digits = sealed.hex()
            print("\n".join(f'      "{digits[i:i + 96]}"' for i in range(0, len(digits), 96)) + ",")
        print("      }},")
print("};\n\n#endif")
