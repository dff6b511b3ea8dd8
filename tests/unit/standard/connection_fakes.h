#ifndef BRANTLE_TESTS_STANDARD_CONNECTION_FAKES_H
#define BRANTLE_TESTS_STANDARD_CONNECTION_FAKES_H

#include <string>

#include "standard/channels.h"

/// Trusts no host.
class NoHostKeys : public cindral::standard::HostKeyCheck {
public:
    std::string Order(std::string const& algorithms) override { return algorithms; }
    std::string Refuse(std::string const&, cindral::standard::View) override { return "none is trusted"; }
};

/// Ignores everything; tests override what they look at.
class IgnoredEvents : public cindral::standard::ChannelEvents {
public:
    using Channel = cindral::standard::Channel;
    using View = cindral::standard::View;

    void OnOpened(Channel&) override {}
    void OnOpenFailed(Channel&, std::string const&) override {}
    void OnData(Channel&, View) override {}
    void OnErrorData(Channel&, View) override {}
    void OnEof(Channel&) override {}
    bool OnClosed(Channel&) override { return true; }
    void OnWindow(Channel&) override {}
    void OnOpenRequest(cindral::standard::OpenRequest const&) override {}
    void OnRequestRefused(Channel&, std::string const&, bool) override {}
    void OnForwardingRefused() override {}
};

#endif
