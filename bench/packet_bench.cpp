// What one packet costs inside the library, without network and server.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <benchmark/benchmark.h>

#include <brantle/packet/channel_messages.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_stream.h>

namespace {

using namespace cindral;

ByteString Secret(unsigned int length) {
    ByteString secret(length);
    for (unsigned int i = 0; i < length; ++i) secret.Data()[i] = static_cast<unsigned char>(i * 11);
    return secret;
}

/// One direction of a connection under aes128-ctr and hmac-sha1.
struct Keys {
    explicit Keys(BlockCipher::Mode mode) {
        _cipher.Redefine("aes128-ctr", mode, Secret(16), Secret(16));
        _mac.Redefine("hmac-sha1", Secret(20));
    }
    BlockCipher _cipher;
    Mac _mac;
};

void SetBytes(benchmark::State& state) { state.SetBytesProcessed(state.iterations() * state.range(0)); }

/// Encodes, encrypts and writes one CHANNEL_DATA.
void WriteData(benchmark::State& state) {
    std::string const data(static_cast<std::size_t>(state.range(0)), 'x');
    Keys keys(BlockCipher::ENCRYPT);
    OSshPacketStream out(keys._cipher, keys._mac);
    int const sink = open("/dev/null", O_WRONLY);
    out._socketBuffer.Bind(sink);
    for (auto _ : state) {
        PacketChannelData packet(0, data.data(), static_cast<unsigned int>(data.size()));
        out.WritePacket(packet);
    }
    close(sink);
    SetBytes(state);
}

/// Writes one CHANNEL_DATA into a socket, and reads, decrypts and decodes it at the other end.
void WriteAndReadData(benchmark::State& state) {
    std::string const data(static_cast<std::size_t>(state.range(0)), 'x');
    Keys outKeys(BlockCipher::ENCRYPT);
    Keys inKeys(BlockCipher::DECRYPT);
    OSshPacketStream out(outKeys._cipher, outKeys._mac);
    ISshPacketStream in(inKeys._cipher, inKeys._mac);
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) < 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    int const room = 1 << 20;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    out._socketBuffer.Bind(fds[0]);
    in._socketBuffer.Bind(fds[1]);
    for (auto _ : state) {
        PacketChannelData packet(0, data.data(), static_cast<unsigned int>(data.size()));
        out.WritePacket(packet);
        PacketDecoder decoder(in.ReadPacket());
        PacketChannelData const received(decoder);
        benchmark::DoNotOptimize(received._bytes.Data());
    }
    for (int fd : fds) close(fd);
    SetBytes(state);
}

BENCHMARK(WriteData)->Arg(64)->Arg(8192)->Arg(32768);
BENCHMARK(WriteAndReadData)->Arg(64)->Arg(8192)->Arg(32768);

} // namespace

BENCHMARK_MAIN();
