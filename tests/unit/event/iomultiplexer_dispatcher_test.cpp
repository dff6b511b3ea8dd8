#include <brantle/event/iomultiplexer_dispatcher.h>

#include <memory>
#include <typeinfo>

#include <gtest/gtest.h>

namespace {

TEST(Dispatcher, BaseKeepsItsRegistrationAndBuffersNothing) {
    IOMultiplexerDispatcher dispatcher(IOMultiplexerWrite);
    EXPECT_EQ(dispatcher.Dispatch(3), 1);
    EXPECT_EQ(dispatcher.InAvail(), 0);
    EXPECT_EQ(dispatcher._type, IOMultiplexerWrite);
    std::unique_ptr<IOMultiplexerDispatcher> const clone(dispatcher.Clone());
    EXPECT_EQ(clone->_type, IOMultiplexerWrite);
}

TEST(Dispatcher, AssignmentCopiesTheType) {
    IOMultiplexerDispatcher reader(IOMultiplexerRead), writer(IOMultiplexerWrite);
    reader = writer;
    IOMultiplexerDispatcher& same = reader;
    reader = same;
    EXPECT_EQ(reader._type, IOMultiplexerWrite);
    EXPECT_EQ(IOMultiplexerDispatcher(reader)._type, IOMultiplexerWrite);
}

TEST(Dispatcher, BaseMakesAPlainRequest) {
    IOMultiplexerDispatcher dispatcher(IOMultiplexerRead);
    std::unique_ptr<IOMultiplexerRequest> const request(dispatcher.MakeRequest(5));
    ASSERT_NE(request, nullptr);
    IOMultiplexerRequest const& made = *request;
    EXPECT_EQ(typeid(made), typeid(IOMultiplexerRequest));
    EXPECT_EQ(request->ReleasePool(), 1);
    request->Process(5);
}

} // namespace
