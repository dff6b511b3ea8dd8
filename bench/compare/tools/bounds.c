// What this machine can do at best: the arithmetic, the copying and the system calls that no client can do
// without.
//
//     bounds DIRECTORY              prints a line "BOUND name value unit" for each figure; files go to
//     DIRECTORY bounds bulk MIB               enciphers and authenticates so much, for callgrind bounds
//     handshake KEY COUNT    the arithmetic of so many key exchanges and logins with that RSA key, likewise
//
// Times are CPU time of this process, unless the name says wall.

// Diffie-Hellman in the form of its numbers, as the clients use it.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <sys/wait.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "../clients/client.h"

enum {
    MIB = 1 << 20,
    LARGEST = 65536,
    MAC_KEY = 20,
    DIGEST_BYTES = 20,
    GROUP_BYTES = 256,
    SHORT_EXPONENT = 320, // twice the bits of the keys, as the reduced algorithms need them
    FULL_EXPONENT = 2047,
};
static double const GIB = 1073741824.0;

static unsigned char from[LARGEST + 64], to[LARGEST + 64], key[32];

static double cpu_now(void) {
    struct timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return (double)time.tv_sec + (double)time.tv_nsec * 1e-9;
}

static void print(char const* name, size_t size, double value, char const* unit) {
    printf("BOUND %s_%zu %.4f %s\n", name, size, value, unit);
}

static void print_per_gib(char const* name, size_t size, double seconds, long long bytes) {
    print(name, size, seconds * GIB / (double)bytes, "s/GiB");
}

static void must(int good, char const* call) {
    if (good) return;
    fprintf(stderr, "%s failed\n", call);
    exit(1);
}

// ---- aes128-ctr and hmac-sha1

static EVP_CIPHER_CTX* cipher;
static EVP_MAC_CTX* mac;

static void set_keys(void) {
    OSSL_PARAM const parameters[] = {OSSL_PARAM_utf8_string(OSSL_MAC_PARAM_DIGEST, "SHA1", 0),
                                     OSSL_PARAM_END};
    cipher = EVP_CIPHER_CTX_new();
    mac = EVP_MAC_CTX_new(EVP_MAC_fetch(NULL, "HMAC", NULL));
    must(EVP_CipherInit_ex(cipher, EVP_aes_128_ctr(), NULL, key, key, 1), "EVP_CipherInit_ex");
    must(EVP_MAC_init(mac, key, MAC_KEY, parameters), "EVP_MAC_init");
}

static void encipher(size_t size) {
    int length;
    EVP_CipherUpdate(cipher, to, &length, from, (int)size);
}

// With the sequence number in front, as a packet's MAC has it.
static void authenticate(size_t size) {
    unsigned char const number[4] = {0};
    unsigned char tag[64];
    size_t length;
    EVP_MAC_init(mac, NULL, 0, NULL);
    EVP_MAC_update(mac, number, sizeof number);
    EVP_MAC_update(mac, from, size);
    EVP_MAC_final(mac, tag, &length, sizeof tag);
}

static void measure_packets(char const* name, size_t size, int with_cipher, int with_mac) {
    long long const total = 256LL * MIB;
    set_keys();
    double const start = cpu_now();
    for (long long done = 0; done < total; done += (long long)size) {
        if (with_mac) authenticate(size);
        if (with_cipher) encipher(size);
    }
    print_per_gib(name, size, cpu_now() - start, total);
}

static int bulk(long mib) {
    enum { BLOCK = 32768 };
    set_keys();
    for (long left = mib * (MIB / BLOCK); left > 0; --left) {
        authenticate(BLOCK);
        encipher(BLOCK);
    }
    return 0;
}

// ---- copying, files

static void measure_memcpy(size_t size) {
    long long const total = 512LL * MIB;
    double const start = cpu_now();
    for (long long done = 0; done < total; done += (long long)size) {
        memcpy(to, from, size);
        __asm__ volatile("" ::: "memory"); // keeps the compiler from dropping the copy
    }
    print_per_gib("memcpy", size, cpu_now() - start, total);
}

static void measure_file(char const* directory, size_t size) {
    long long const total = 256LL * MIB;
    char path[300];
    snprintf(path, sizeof path, "%s/bounds", directory);
    double start = cpu_now();
    int fd = create_file(path);
    for (long long done = 0; done < total; done += (long long)size) write_all(fd, (char const*)from, size);
    close(fd);
    print_per_gib("tmpfs_write", size, cpu_now() - start, total);
    start = cpu_now();
    fd = open(path, O_RDONLY);
    while (read(fd, to, size) > 0) {
    }
    close(fd);
    print_per_gib("tmpfs_read", size, cpu_now() - start, total);
    unlink(path);
}

// ---- loopback

static int port_of(int listener) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    getsockname(listener, (struct sockaddr*)&address, &length);
    return ntohs(address.sin_port);
}

// One end in a child process, in which `child` is set, the other in this one.
struct pair {
    int fd;
    pid_t child; // 0 in the child
};

static struct pair connected_pair(void) {
    int const listener = tcp_listen(0);
    struct sockaddr_in const address = loopback(port_of(listener));
    struct pair pair;
    pair.child = fork();
    if (pair.child == 0) {
        pair.fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(pair.fd, (struct sockaddr const*)&address, sizeof address) < 0) die("connect", "");
    } else {
        pair.fd = accept(listener, NULL, NULL);
    }
    close(listener);
    set_nodelay(pair.fd);
    return pair;
}

static void read_all(int fd, size_t size) {
    for (size_t total = 0; total < size;) {
        ssize_t const n = read(fd, to, size - total);
        if (n <= 0) die("read", "");
        total += (size_t)n;
    }
}

static void measure_stream(size_t size) {
    long long const total = 1024LL * MIB;
    int result[2];
    must(pipe(result) == 0, "pipe");
    struct pair const pair = connected_pair();
    double start = cpu_now();
    if (pair.child == 0) {
        for (long long done = 0; done < total; done += (long long)size)
            write_all(pair.fd, (char const*)from, size);
        double const sending = cpu_now() - start;
        write_all(result[1], (char const*)&sending, sizeof sending);
        _exit(0);
    }
    double const wall_start = usage_now().wall;
    while (read(pair.fd, to, size) > 0) {
    }
    double const wall = usage_now().wall - wall_start;
    double const receiving = cpu_now() - start;
    double sending;
    must(read(result[0], &sending, sizeof sending) == sizeof sending, "read");
    waitpid(pair.child, NULL, 0);
    close(pair.fd);
    close(result[0]);
    close(result[1]);
    print("loopback_wall", size, (double)total / 1e6 / wall, "MB/s");
    print_per_gib("loopback_send", size, sending, total);
    print_per_gib("loopback_receive", size, receiving, total);
}

static void measure_round_trip(size_t request, size_t reply) {
    enum { ROUNDS = 8192 };
    struct pair const pair = connected_pair();
    if (pair.child == 0) {
        for (int i = 0; i < ROUNDS; ++i) {
            read_all(pair.fd, request);
            write_all(pair.fd, (char const*)from, reply);
        }
        _exit(0);
    }
    double const wall_start = usage_now().wall, start = cpu_now();
    for (int i = 0; i < ROUNDS; ++i) {
        write_all(pair.fd, (char const*)from, request);
        read_all(pair.fd, reply);
    }
    double const cpu = cpu_now() - start, wall = usage_now().wall - wall_start;
    waitpid(pair.child, NULL, 0);
    close(pair.fd);
    printf("BOUND roundtrip_wall_%zu_%zu %.2f us\n", request, reply, wall * 1e6 / ROUNDS);
    printf("BOUND roundtrip_cpu_%zu_%zu %.2f us\n", request, reply, cpu * 1e6 / ROUNDS);
}

// ---- key exchange, signatures

// With a group of 2048 bits (RFC 3526, group 14).
static DH* new_dh(int exponent_bits) {
    BIGNUM* const generator = BN_new();
    DH* const dh = DH_new();
    must(BN_set_word(generator, 2) && DH_set0_pqg(dh, BN_get_rfc3526_prime_2048(NULL), NULL, generator),
         "DH_set0_pqg");
    DH_set_length(dh, exponent_bits);
    return dh;
}

static void exchange(BIGNUM const* peer, int exponent_bits) {
    unsigned char secret[GROUP_BYTES];
    DH* const dh = new_dh(exponent_bits);
    must(DH_generate_key(dh) && DH_compute_key(secret, peer, dh) > 0, "DH_compute_key");
    DH_free(dh);
}

static void measure_dh(int exponent_bits) {
    int const rounds = exponent_bits > 1000 ? 60 : 200;
    DH* const peer = new_dh(exponent_bits);
    must(DH_generate_key(peer), "DH_generate_key");
    double start = cpu_now();
    for (int i = 0; i < rounds; ++i) exchange(DH_get0_pub_key(peer), exponent_bits);
    printf("BOUND dh2048_x%d_generate_plus_compute %.3f ms\n", exponent_bits,
           (cpu_now() - start) * 1e3 / rounds);

    BN_CTX* const context = BN_CTX_new();
    BN_MONT_CTX* const montgomery = BN_MONT_CTX_new();
    BIGNUM const* const prime = DH_get0_p(peer);
    BIGNUM *const result = BN_new(), *const exponent = BN_dup(DH_get0_priv_key(peer));
    BN_MONT_CTX_set(montgomery, prime, context);
    BN_set_flags(exponent, BN_FLG_CONSTTIME);
    start = cpu_now();
    for (int i = 0; i < rounds; ++i) {
        BN_mod_exp_mont_consttime(result, DH_get0_g(peer), exponent, prime, context, montgomery);
        BN_mod_exp_mont_consttime(result, DH_get0_pub_key(peer), exponent, prime, context, montgomery);
    }
    printf("BOUND modexp2048_x%d_two %.3f ms\n", exponent_bits, (cpu_now() - start) * 1e3 / rounds);
}

struct signature {
    unsigned char bytes[1024];
    size_t length;
};

static unsigned char const digest[DIGEST_BYTES] = {1};

static void set_pkcs1_sha1(EVP_PKEY_CTX* context) {
    must(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) > 0 &&
             EVP_PKEY_CTX_set_signature_md(context, EVP_sha1()) > 0,
         "EVP_PKEY_CTX");
}

static void start_signing(EVP_PKEY_CTX* context) {
    EVP_PKEY_sign_init(context);
    set_pkcs1_sha1(context);
}

static void start_verifying(EVP_PKEY_CTX* context) {
    EVP_PKEY_verify_init(context);
    set_pkcs1_sha1(context);
}

static void sign(EVP_PKEY_CTX* context, struct signature* signature) {
    signature->length = sizeof signature->bytes;
    must(EVP_PKEY_sign(context, signature->bytes, &signature->length, digest, sizeof digest) == 1,
         "EVP_PKEY_sign");
}

static void verify(EVP_PKEY_CTX* context, struct signature const* signature) {
    must(EVP_PKEY_verify(context, signature->bytes, signature->length, digest, sizeof digest) == 1,
         "EVP_PKEY_verify");
}

static void measure_rsa(unsigned int bits) {
    enum { SIGNATURES = 100, VERIFICATIONS = 2000 };
    struct signature signature;
    EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(EVP_RSA_gen(bits), NULL);
    start_signing(context);
    double start = cpu_now();
    for (int i = 0; i < SIGNATURES; ++i) sign(context, &signature);
    printf("BOUND rsa%u_sign %.3f ms\n", bits, (cpu_now() - start) * 1e3 / SIGNATURES);
    start_verifying(context);
    start = cpu_now();
    for (int i = 0; i < VERIFICATIONS; ++i) verify(context, &signature);
    printf("BOUND rsa%u_verify %.3f ms\n", bits, (cpu_now() - start) * 1e3 / VERIFICATIONS);
}

// Loading the key, one exchange, one signature and one verification, so many times.
static int handshake(char const* key_file, long count) {
    DH* const peer = new_dh(SHORT_EXPONENT);
    must(DH_generate_key(peer), "DH_generate_key");
    while (count-- > 0) {
        struct signature signature;
        exchange(DH_get0_pub_key(peer), SHORT_EXPONENT);
        FILE* const file = fopen(key_file, "r");
        if (!file) die("open", key_file);
        EVP_PKEY* const rsa = PEM_read_PrivateKey(file, NULL, NULL, NULL);
        fclose(file);
        must(rsa != NULL, "PEM_read_PrivateKey");
        EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(rsa, NULL);
        start_signing(context);
        sign(context, &signature);
        start_verifying(context);
        verify(context, &signature);
        EVP_PKEY_CTX_free(context);
        EVP_PKEY_free(rsa);
    }
    return 0;
}

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "bulk") == 0) return bulk(atol(argv[2]));
    if (argc == 4 && strcmp(argv[1], "handshake") == 0) return handshake(argv[2], atol(argv[3]));
    if (argc != 2) return 2;
    memset(from, 1, sizeof from);
    memset(to, 1, sizeof to);
    RAND_bytes(key, sizeof key);
    measure_packets("aes128ctr", 32768, 1, 0);
    measure_packets("hmacsha1", 32768, 0, 1);
    measure_packets("aes128ctr_plus_hmacsha1", 32768, 1, 1);
    measure_packets("aes128ctr_plus_hmacsha1", 8192, 1, 1);
    measure_packets("aes128ctr_plus_hmacsha1", 1024, 1, 1);
    measure_packets("aes128ctr_plus_hmacsha1", 64, 1, 1);
    measure_memcpy(32768);
    measure_file(argv[1], 65536); // this one also has the pages allocated
    measure_file(argv[1], 32768);
    measure_file(argv[1], 8192);
    measure_stream(32768);
    measure_stream(8192);
    measure_round_trip(64, 32768);
    measure_round_trip(32768, 64);
    measure_dh(SHORT_EXPONENT);
    measure_dh(FULL_EXPONENT);
    measure_rsa(2048);
    measure_rsa(3072);
    return 0;
}
