#include <brantle/apps/scp_session.h>

#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

using cindral::ScpSession;

namespace {

/// What a class that derives from ScpSession may call.
class Derived : public ScpSession {
public:
    using ScpSession::ScpSession;

    template <class Session>
    static auto MayReadResponse(Session& session) -> decltype(session.ReadResponse(), std::true_type());
    static std::false_type MayReadResponse(...);

    template <class Session>
    static auto MayReadln(Session& session, String_t& line)
        -> decltype(session.Readln(line), std::true_type());
    static std::false_type MayReadln(...);

    template <class Session>
    static auto MayParse(Session& session, unsigned int& mode, long long& size, Pathname& name)
        -> decltype(session.ParseCLine(String_t(), mode, size, name), std::true_type());
    static std::false_type MayParse(...);

    template <class Session>
    static auto MaySend(Session& session) -> decltype(session.TerminateSend(), std::true_type());
    static std::false_type MaySend(...);
};

TEST(ScpSession, HelpersArePrivate) {
    Derived* session = nullptr;
    static_cast<void>(session);
    EXPECT_TRUE(decltype(Derived::MaySend(*session))::value);
    EXPECT_FALSE(decltype(Derived::MayReadResponse(*session))::value);
    EXPECT_FALSE(decltype(Derived::MayReadln(*session, std::declval<String_t&>()))::value);
    EXPECT_FALSE(decltype(Derived::MayParse(*session, std::declval<unsigned int&>(),
                                            std::declval<long long&>(), std::declval<Pathname&>()))::value);
}

} // namespace
