#include "shell/net.h"
#include "shell/peer_filter.h"
#include "support/prelude.h"

// Programs on this PC come from the loopback or from the address that a listener is bound to;
// hosts of its interface's network pass only where bind_host names one (0.0.0.0 names none).
TEST(PeerFilter, TellsThisPCItsNetworkAndTheRest) {
    const zq::PeerFilter lan("10.77.0.1", 24);
    for (const char* peer : {"127.0.0.1", "127.9.9.9", "10.77.0.1"}) EXPECT_TRUE(lan.on_this_pc(peer)) << peer;
    EXPECT_FALSE(lan.on_this_pc("10.77.0.2"));
    EXPECT_TRUE(lan.admits("10.77.0.255"));
    for (const char* peer : {"10.77.1.2", "10.78.0.1", "128.0.0.1", ""}) EXPECT_FALSE(lan.admits(peer)) << peer;
    EXPECT_FALSE(lan.this_pc_only().admits("10.77.0.2"));
    EXPECT_TRUE(lan.this_pc_only().admits("10.77.0.1"));

    const zq::PeerFilter every_interface("0.0.0.0", 24);
    EXPECT_TRUE(every_interface.admits("127.0.0.1"));
    for (const char* peer : {"0.0.0.1", "10.77.0.2"}) EXPECT_FALSE(every_interface.admits(peer)) << peer;
    EXPECT_TRUE(zq::PeerFilter::everyone().admits("192.0.2.1"));
    EXPECT_FALSE(zq::PeerFilter::everyone().on_this_pc("192.0.2.1"));

    // What the system says of the loopback, and of an address that no interface holds.
    EXPECT_EQ(zq::interface_prefix_length("127.0.0.1"), 8);
    EXPECT_EQ(zq::interface_prefix_length("192.0.2.123"), -1);
}

// A readable token decides alone; an unreadable one (an elevated game) is served only from our
// own logon session, and never when either session is unknown.
TEST(PeerFilter, SameUserCheckFallsBackToTheLogonSession) {
    using zq::PeerUser;
    EXPECT_TRUE(zq::serve_local_peer(PeerUser::Same, 2, 1));
    EXPECT_FALSE(zq::serve_local_peer(PeerUser::Other, 1, 1));
    EXPECT_TRUE(zq::serve_local_peer(PeerUser::Unreadable, 1, 1));
    EXPECT_FALSE(zq::serve_local_peer(PeerUser::Unreadable, 0, 1));
    EXPECT_FALSE(zq::serve_local_peer(PeerUser::Unreadable, std::nullopt, 1));
    EXPECT_FALSE(zq::serve_local_peer(PeerUser::Unreadable, 1, std::nullopt));
}
