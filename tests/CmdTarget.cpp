// Tests of CCmdTarget: its layout, which applications derive from, and what its functions do by themselves.
#include <Windows/CmdTarget.h>

#include <type_traits>

#include "NetworkFixtures.h"

namespace {

static_assert(std::has_virtual_destructor<CCmdTarget>::value, "deleted through the base");
static_assert(sizeof(CCmdTarget) == sizeof(void*), "the table's address and no data");

TEST(CmdTarget, Virtual_functions_stand_in_their_slots_behind_both_destructors) {
    EXPECT_EQ(SlotOf(&CCmdTarget::ClientConnection), 2);
    EXPECT_EQ(SlotOf(&CCmdTarget::ClientActivity), 3);
    EXPECT_EQ(SlotOf(&CCmdTarget::ServerActivity), 4);
    EXPECT_EQ(SlotOf(&CCmdTarget::RouteMessage), 5);
}

TEST(CmdTarget, OnFinalRelease_is_not_virtual_and_does_nothing) {
    EXPECT_EQ(SlotOf(&CCmdTarget::OnFinalRelease), -1);
    CCmdTarget target;
    CallLog calls(Traffic());
    Recorder::Clear();
    target.OnFinalRelease();
    EXPECT_TRUE(Recorder::AllEvents().empty());
    EXPECT_EQ(calls.Texts(), Calls{});
    EXPECT_TRUE(target.ClientActivity(0)); // still alive
}

TEST(CmdTarget, ClientConnection_leaves_the_socket_alone) {
    ConnectedPair pair;
    CSocket socket;
    socket.m_fd = pair.Release();
    const int fd = socket.m_fd;
    CCmdTarget target;
    CallLog calls(Traffic());
    Recorder::Clear();
    target.ClientConnection(&socket);
    EXPECT_EQ(calls.Texts(), Calls{});
    EXPECT_TRUE(Recorder::AllEvents().empty());
    EXPECT_EQ(socket.m_fd, fd);
    EXPECT_TRUE(socket.Send(const_cast<char*>("still open")));
    EXPECT_EQ(pair.peer.ReadFrame(), "still open");
}

TEST(CmdTarget, ClientActivity_and_ServerActivity_return_true) {
    CCmdTarget target;
    EXPECT_TRUE(target.ClientActivity(5));
    EXPECT_TRUE(target.ServerActivity());
}

TEST(CmdTarget, RouteMessage_returns_false_and_leaves_the_message_alone) {
    CCmdTarget target;
    MSG message = {1, 2, &message, 4};
    EXPECT_FALSE(target.RouteMessage(&message, false));
    EXPECT_FALSE(target.RouteMessage(&message, true));
    EXPECT_EQ(message.message, 1U);
    EXPECT_EQ(message.wParam, 2UL);
    EXPECT_EQ(message.lParam, &message);
    EXPECT_EQ(message.time, 4UL);
}

TEST(CmdTarget, Deleting_through_the_base_destroys_the_derived_object_and_frees_it) {
    struct Derived : CCmdTarget {
        explicit Derived(bool& destroyed) : m_destroyed(destroyed) {}
        ~Derived() override { m_destroyed = true; }
        bool& m_destroyed;
    };
    bool destroyed = false;
    AllocationCounter allocations;
    CCmdTarget* target = new Derived(destroyed);
    const int news = allocations.News();
    delete target;
    const int deletes = allocations.Deletes();
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(news, 1);
    EXPECT_EQ(deletes, 1);
}

} // namespace
