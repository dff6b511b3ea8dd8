#include <brantle/cindral/tty_modes.h>

#include <unistd.h>

#include <map>

#include <gtest/gtest.h>

#include "hex.h"
#include "support/terminal.h"

using namespace cindral;

namespace {

using Modes = std::map<unsigned int, unsigned int>;

/// Parses the encoding: opcode and value each, then the end byte and nothing after it.
Modes Decode(ByteString const& encoded) {
    Modes modes;
    unsigned int pos = 0;
    unsigned char const* data = encoded.Data();
    for (; pos + 5 <= encoded.Length() && data[pos] != 0; pos += 5) {
        EXPECT_EQ(modes.count(data[pos]), 0u) << int{data[pos]};
        modes[data[pos]] = static_cast<unsigned int>(data[pos + 1]) << 24 |
                           static_cast<unsigned int>(data[pos + 2]) << 16 |
                           static_cast<unsigned int>(data[pos + 3]) << 8 | data[pos + 4];
    }
    EXPECT_EQ(pos + 1, encoded.Length());
    EXPECT_EQ(data[pos], 0);
    return modes;
}

struct Setting {
    unsigned int _opcode;
    tcflag_t termios::* _field;
    tcflag_t _flag;
};

/// RFC 4254 section 8.
constexpr Setting FLAGS[] = {
    {30, &termios::c_iflag, IGNPAR}, {31, &termios::c_iflag, PARMRK},  {32, &termios::c_iflag, INPCK},
    {33, &termios::c_iflag, ISTRIP}, {34, &termios::c_iflag, INLCR},   {35, &termios::c_iflag, IGNCR},
    {36, &termios::c_iflag, ICRNL},  {37, &termios::c_iflag, IUCLC},   {38, &termios::c_iflag, IXON},
    {39, &termios::c_iflag, IXANY},  {40, &termios::c_iflag, IXOFF},   {41, &termios::c_iflag, IMAXBEL},
    {50, &termios::c_lflag, ISIG},   {51, &termios::c_lflag, ICANON},  {52, &termios::c_lflag, XCASE},
    {53, &termios::c_lflag, ECHO},   {54, &termios::c_lflag, ECHOE},   {55, &termios::c_lflag, ECHOK},
    {56, &termios::c_lflag, ECHONL}, {57, &termios::c_lflag, NOFLSH},  {58, &termios::c_lflag, TOSTOP},
    {59, &termios::c_lflag, IEXTEN}, {60, &termios::c_lflag, ECHOCTL}, {61, &termios::c_lflag, ECHOKE},
    {62, &termios::c_lflag, PENDIN}, {70, &termios::c_oflag, OPOST},   {71, &termios::c_oflag, OLCUC},
    {72, &termios::c_oflag, ONLCR},  {73, &termios::c_oflag, OCRNL},   {74, &termios::c_oflag, ONOCR},
    {75, &termios::c_oflag, ONLRET}, {90, &termios::c_cflag, CS7},     {91, &termios::c_cflag, CS8},
    {92, &termios::c_cflag, PARENB}, {93, &termios::c_cflag, PARODD},
};

struct Character {
    unsigned int _opcode;
    unsigned int _index;
};

constexpr Character CHARACTERS[] = {
    {1, VINTR},     {2, VQUIT},    {3, VERASE},  {4, VKILL},  {5, VEOF},
    {6, VEOL},      {7, VEOL2},    {8, VSTART},  {9, VSTOP},  {10, VSUSP},
    {12, VREPRINT}, {13, VWERASE}, {14, VLNEXT}, {16, VSWTC}, {18, VDISCARD},
};

TEST(TtyMakeModes, EachFlagHasItsOpcode) {
    for (Setting const& flag : FLAGS) {
        termios settings{};
        settings.*flag._field = flag._flag;
        Modes const modes = Decode(TtyMakeModes(settings));
        for (Setting const& other : FLAGS)
            EXPECT_EQ(modes.at(other._opcode), other._opcode == flag._opcode ? 1u : 0u)
                << "set " << flag._opcode << ", looking at " << other._opcode;
    }
}

TEST(TtyMakeModes, EachCharacterHasItsOpcode) {
    for (Character const& character : CHARACTERS) {
        termios settings{};
        settings.c_cc[character._index] = 3;
        Modes const modes = Decode(TtyMakeModes(settings));
        for (Character const& other : CHARACTERS)
            EXPECT_EQ(modes.at(other._opcode), other._opcode == character._opcode ? 3u : 255u);
    }
}

TEST(TtyMakeModes, SpeedsAreInBitsPerSecond) {
    termios settings{};
    cfsetispeed(&settings, B9600);
    cfsetospeed(&settings, B9600);
    EXPECT_EQ(Decode(TtyMakeModes(settings)).at(128), 9600u);
    EXPECT_EQ(Decode(TtyMakeModes(settings)).at(129), 9600u);
    settings = termios{};
    cfsetospeed(&settings, B4000000);
    EXPECT_EQ(Decode(TtyMakeModes(settings)).at(129), 4000000u);
    EXPECT_EQ(Decode(TtyMakeModes(termios{})).at(129), 0u);
}

TEST(TtyMakeModes, NothingElseIsEncoded) {
    EXPECT_EQ(Decode(TtyMakeModes(termios{})).size(), std::size(FLAGS) + std::size(CHARACTERS) + 2);
}

TEST(TtyMakeModes, BytesOfAModeAreInWireOrder) {
    termios settings{};
    settings.c_cc[VINTR] = 3;
    EXPECT_EQ(ToHex(TtyMakeModes(settings).SubStr(0, 10)), "0100000003"
                                                           "02000000ff");
}

TEST(TtyMakeModes, NewTerminalHasTheUsualModes) {
    support::Terminal const terminal;
    Modes const modes = Decode(TtyMakeModes(terminal.Settings()));
    EXPECT_EQ(modes.at(1), 3u);
    EXPECT_EQ(modes.at(50), 1u);
    EXPECT_EQ(modes.at(53), 1u);
    EXPECT_EQ(modes.at(91), 1u);
    EXPECT_EQ(modes.at(128), 38400u);
}

} // namespace
