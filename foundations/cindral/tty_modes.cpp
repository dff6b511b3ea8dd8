#include <brantle/cindral/tty_modes.h>

#include <unistd.h>

#include <brantle/thornel/big_endian.h>

namespace cindral {

namespace {

constexpr unsigned char TTY_OP_END = 0;
constexpr unsigned char TTY_OP_ISPEED = 128;
constexpr unsigned char TTY_OP_OSPEED = 129;
constexpr unsigned int NO_CHARACTER = 255;

struct Character {
    unsigned char _opcode;
    unsigned int _index;
};

// Opcodes 11 (VDSUSP), 15 (VFLUSH) and 17 (VSTATUS) have no character on Linux.
constexpr Character CHARACTERS[] = {
    {1, VINTR},     {2, VQUIT},    {3, VERASE},  {4, VKILL},  {5, VEOF},
    {6, VEOL},      {7, VEOL2},    {8, VSTART},  {9, VSTOP},  {10, VSUSP},
    {12, VREPRINT}, {13, VWERASE}, {14, VLNEXT}, {16, VSWTC}, {18, VDISCARD},
};

struct Flag {
    unsigned char _opcode;
    tcflag_t _mask;
    tcflag_t _value; ///< of the masked bits when the flag is set
};

constexpr Flag Bit(unsigned char opcode, tcflag_t bit) { return Flag{opcode, bit, bit}; }

constexpr Flag INPUT_FLAGS[] = {
    Bit(30, IGNPAR), Bit(31, PARMRK), Bit(32, INPCK), Bit(33, ISTRIP), Bit(34, INLCR), Bit(35, IGNCR),
    Bit(36, ICRNL),  Bit(37, IUCLC),  Bit(38, IXON),  Bit(39, IXANY),  Bit(40, IXOFF), Bit(41, IMAXBEL),
};
constexpr Flag LOCAL_FLAGS[] = {
    Bit(50, ISIG),    Bit(51, ICANON), Bit(52, XCASE),  Bit(53, ECHO),   Bit(54, ECHOE),
    Bit(55, ECHOK),   Bit(56, ECHONL), Bit(57, NOFLSH), Bit(58, TOSTOP), Bit(59, IEXTEN),
    Bit(60, ECHOCTL), Bit(61, ECHOKE), Bit(62, PENDIN),
};
constexpr Flag OUTPUT_FLAGS[] = {
    Bit(70, OPOST), Bit(71, OLCUC), Bit(72, ONLCR), Bit(73, OCRNL), Bit(74, ONOCR), Bit(75, ONLRET),
};
constexpr Flag CONTROL_FLAGS[] = {
    {90, CSIZE, CS7},
    {91, CSIZE, CS8},
    Bit(92, PARENB),
    Bit(93, PARODD),
};

struct Speed {
    speed_t _code;
    unsigned int _bitsPerSecond;
};

constexpr Speed SPEEDS[] = {
    {B0, 0},
    {B50, 50},
    {B75, 75},
    {B110, 110},
    {B134, 134},
    {B150, 150},
    {B200, 200},
    {B300, 300},
    {B600, 600},
    {B1200, 1200},
    {B1800, 1800},
    {B2400, 2400},
    {B4800, 4800},
    {B9600, 9600},
    {B19200, 19200},
    {B38400, 38400},
    {B57600, 57600},
    {B115200, 115200},
    {B230400, 230400},
    {B460800, 460800},
    {B500000, 500000},
    {B576000, 576000},
    {B921600, 921600},
    {B1000000, 1000000},
    {B1152000, 1152000},
    {B1500000, 1500000},
    {B2000000, 2000000},
    {B2500000, 2500000},
    {B3000000, 3000000},
    {B3500000, 3500000},
    {B4000000, 4000000},
};

unsigned int BitsPerSecond(speed_t code) {
    for (Speed const& speed : SPEEDS)
        if (speed._code == code) return speed._bitsPerSecond;
    return 0;
}

class Encoder {
public:
    void Add(unsigned char opcode, unsigned int value) {
        unsigned char bytes[5] = {opcode};
        PutBigEndian(bytes + 1, value);
        _modes.Append(bytes, sizeof bytes);
    }
    template <unsigned int COUNT>
    void Add(Flag const (&flags)[COUNT], tcflag_t settings) {
        for (Flag const& flag : flags) Add(flag._opcode, (settings & flag._mask) == flag._value ? 1 : 0);
    }
    ByteString Finish() {
        _modes.Append(&TTY_OP_END, 1);
        return _modes;
    }

private:
    ByteString _modes;
};

} // namespace

ByteString TtyMakeModes(termios const& settings) {
    Encoder encoder;
    for (Character const& character : CHARACTERS) {
        unsigned int const value = settings.c_cc[character._index];
        encoder.Add(character._opcode, value == _POSIX_VDISABLE ? NO_CHARACTER : value);
    }
    encoder.Add(INPUT_FLAGS, settings.c_iflag);
    encoder.Add(LOCAL_FLAGS, settings.c_lflag);
    encoder.Add(OUTPUT_FLAGS, settings.c_oflag);
    encoder.Add(CONTROL_FLAGS, settings.c_cflag);
    encoder.Add(TTY_OP_ISPEED, BitsPerSecond(cfgetispeed(&settings)));
    encoder.Add(TTY_OP_OSPEED, BitsPerSecond(cfgetospeed(&settings)));
    return encoder.Finish();
}

} // namespace cindral
