"""The sets of algorithms that server and clients are pinned to, by name."""
import dataclasses
from typing import Optional


@dataclasses.dataclass(frozen=True)
class Algorithms:
    """Names as in OpenSSH's configuration, with commas between them.

    Where there is none, the server offers what it offers by itself and each client uses what it likes best.
    """
    key_type: str  # of host and user keys, for ssh-keygen
    kex: Optional[str]
    signatures: Optional[str]  # by host and user keys
    ciphers: Optional[str]
    macs: Optional[str]

    def server_configuration(self):
        options = {
            "KexAlgorithms": self.kex,
            "HostKeyAlgorithms": self.signatures,
            "PubkeyAcceptedAlgorithms": self.signatures,
            "Ciphers": self.ciphers,
            "MACs": self.macs,
        }
        return "".join(f"{option} {names}\n" for option, names in options.items() if names)

    def client_environment(self):
        variables = {
            "BENCH_KEX": self.kex,
            "BENCH_SIGNATURES": self.signatures,
            "BENCH_CIPHERS": self.ciphers,
            "BENCH_MACS": self.macs,
        }
        return {variable: names for variable, names in variables.items() if names}


SETS = {
    # What a session without the standard dialect agrees on with a server of today that is configured for it.
    "reduced": Algorithms(key_type="rsa", kex="diffie-hellman-group-exchange-sha1", signatures="ssh-rsa",
                          ciphers="aes128-ctr", macs="hmac-sha1"),
    # What servers of today offer, each client with the fastest cipher that it has on a processor with AES.
    "standard": Algorithms(key_type="ed25519", kex="curve25519-sha256", signatures="ssh-ed25519",
                           ciphers="aes128-gcm@openssh.com,aes128-ctr", macs=None),
    # The same, all with one cipher and MAC.
    "standard-ctr": Algorithms(key_type="ed25519", kex="curve25519-sha256", signatures="ssh-ed25519",
                               ciphers="aes128-ctr", macs="hmac-sha2-256"),
}
