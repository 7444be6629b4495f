// Faults injected around a running bridge: a service that refuses, answers badly or holds its
// answer; a game that leaves while a command or a poll is out; a state file that cannot be
// written. What is checked is what the game and the player see: result codes, a bridge that
// goes on serving, and files left whole.

#include <atomic>
#include <chrono>
#include <thread>

#include "support/bridge_rig.h"

namespace {

// Holds the requests that reach it while it is closed (at most a minute, so that a test that
// failed first still ends); counts those it holds.
struct Gate {
    std::atomic<bool> open{true};
    std::atomic<int> held{0};
    void pass() {
        ++held;
        wait_until([this] { return open.load(); }, 60.0);
        --held;
    }
    bool wait_held() {
        return wait_until([this] { return held.load() > 0; });
    }
};

// The commands that go upstream, each with the code that its failure gives the game.
struct Command {
    std::uint16_t number;
    std::string body;
    int code;
    int result = -1;
};
const Command kLogin{0, login_body("ash"), 5};
const Command kContextStart{100, zq::wrap_message(zq::FieldMessage().number(1, 3).bytes()), 2};
const Command kResolve{105, zq::wrap_message(zq::FieldMessage().string(1, "bob").bytes()), 26};

}  // namespace

// Each command that goes upstream answers the game its own failure code, whether the service
// cannot be reached or answers with a status, a page or a cut-off document; nothing is saved, and
// the connection serves on.
TEST(BridgeFaults, UpstreamRefusingOrAnsweringBadlyGivesEachCommandItsFailureCode) {
    struct Fault {
        const char* name;
        std::optional<ScriptedAnswer> answer;  // none: nobody listens
        const char* words;                     // behind the path in the log
    } faults[] = {
        {"refused connection", std::nullopt, "request failed ("},
        {"401", ScriptedAnswer::text(401, R"({"ResKind":1,"Message":"who are you"})"), "HTTP 401 who are you"},
        {"500", ScriptedAnswer::json({{"ResKind", 0}}, 500), "HTTP 500 "},
        {"html page", ScriptedAnswer::text(200, "<html><body>Bad Gateway</body></html>"),
         "no account/matching service (HTTP 200)"},
    };
    const Command commands[] = {
        kLogin, kContextStart,
        {101, zq::wrap_message(""), 2},                                                    // create room
        {102, zq::wrap_message(zq::FieldMessage().number(1, 1001).bytes()), 14},           // join room
        {110, zq::wrap_message(zq::FieldMessage().number(1, 4).number(3, 2).bytes()), 2},  // kick
        kResolve};
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        BridgeRig rig(BridgeRig::Service::Scripted);
        if (fault.answer) rig.service.set_fallback([&](const auto&) { return fault.answer; });
        else rig.config.velmar_server = "http://127.0.0.1:" + std::to_string(closed_port());
        ASSERT_TRUE(rig.start());
        FakeGame& game = rig.game();
        std::uint64_t packet = 1;
        for (const auto& command : commands) {
            auto reply = game.request(command.number, ++packet, command.body);
            ASSERT_TRUE(reply) << command.number;
            EXPECT_EQ(reply->result(), command.code) << command.number;
            EXPECT_EQ(reply->payload(), "") << command.number;
        }
        EXPECT_TRUE(rig.log.contains("create_room failed: /mp/matching2/create_room: " + std::string(fault.words)));
        EXPECT_FALSE(std::filesystem::exists(rig.state()));
        auto features = game.request(111, ++packet, "");
        ASSERT_TRUE(features);
        EXPECT_EQ(features->result(), 0);
    }
}

// A service that takes each request and never answers: every call ends at its own time-out and
// the game gets the command's failure code. The games wait side by side, so this lasts one
// time-out (8 s), not the sum of them.
TEST(BridgeFaults, ServiceThatNeverAnswersTimesEachCallOutWithItsFailureCode) {
    BridgeRig rig(BridgeRig::Service::Scripted);
    // Held far beyond each call's time-out; the service's stop cuts the holds short at the end.
    rig.service.set_fallback([](const auto&) { return std::optional(ScriptedAnswer::delayed(60.0, json::object())); });
    ASSERT_TRUE(rig.start());
    zq::App& bridge = rig.bridge();

    Command commands[] = {kLogin, kContextStart, kResolve};
    std::vector<std::thread> games;
    for (auto& command : commands) {
        games.emplace_back([&bridge, &command] {
            FakeGame game;
            if (!game.connect_and_greet(bridge.bound_tcp_port())) return;
            if (auto reply = game.request(command.number, 1, command.body, 30.0)) command.result = reply->result();
        });
    }
    for (auto& game : games) game.join();
    for (const auto& command : commands) EXPECT_EQ(command.result, command.code) << command.number;
    EXPECT_TRUE(rig.log.contains("velmar account failed for 'ash': /auth/account/create: The read operation timed out"));
    EXPECT_TRUE(rig.log.contains("context_start failed: /mp/matching2/context_start: The read operation timed out"));
}

// Online ids come from the game as raw bytes; one that is not UTF-8 cannot go into a JSON body.
// The command fails like any upstream failure, and the bridge lives on. The log and the status
// page show the name with the bytes that are no UTF-8 replaced.
TEST(BridgeFaults, OnlineIdThatIsNotUtf8FailsItsCommandNotTheProcess) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    FakeGame& game = rig.game();
    const std::string not_utf8 = zq::wrap_message(zq::FieldMessage().string(1, "b\xFF\xFEob").bytes());
    EXPECT_EQ(game.request(105, 2, not_utf8)->result(), 26);
    EXPECT_EQ(game.request(0, 3, login_body("ash\xC3"))->result(), 5);
    EXPECT_TRUE(rig.log.contains("velmar account failed for 'ash\xEF\xBF\xBD': /auth/account/create: "));
    EXPECT_EQ(game.request(100, 4, zq::wrap_message(""))->result(), 2);
    EXPECT_TRUE(rig.service.requests().empty());
    EXPECT_FALSE(std::filesystem::exists(rig.state()));
    auto status = send("GET", rig.web_url() + "/sarnlink/status.json");
    EXPECT_EQ(status.status, 200u);
    EXPECT_EQ(body_of(status)["sessions"][0]["name"], "ash\xEF\xBF\xBD");

    // The same connection, and a new one, are served as before.
    EXPECT_EQ(game.request(0, 5, login_body("ash"))->result(), 0);
    rig.game();
}

// A game that goes away while its command waits on the service, and one that goes away while
// its pump's poll is out: other games are served meanwhile, each session leaves its room once
// its call comes back, and stop does not linger.
TEST(BridgeFaults, GameLeavingMidCommandOrMidPollIsCleanedUpWhileOthersAreServed) {
    constexpr const char* kKick = "/mp/matching2/kick_member";
    constexpr const char* kPoll = "/np/events/poll";
    constexpr const char* kLeave = "/mp/matching2/leave_room";
    Gate kick_gate, poll_gate;
    BridgeRig rig;
    FakeMatching& matching = *rig.matching;
    for (auto [path, gate] : {std::pair{kKick, &kick_gate}, std::pair{kPoll, &poll_gate}}) {
        rig.service.handle(path, [&matching, gate](const RecordedRequest& r) {
            gate->pass();
            return scripted(*matching.rooms.serve(call_of(r)));
        });
    }
    // However the test ends, nothing stays held while the service stops.
    struct OpenAtEnd {
        Gate& a;
        Gate& b;
        ~OpenAtEnd() { a.open = b.open = true; }
    } open_at_end{kick_gate, poll_gate};

    ASSERT_TRUE(rig.start());
    zq::App& bridge = rig.bridge();
    auto& log = rig.log;
    FakeGame& alice = rig.game("alice");
    FakeGame& bob = rig.game("bob");
    ASSERT_EQ(alice.request(100, 2, zq::wrap_message(""))->result(), 0);
    ASSERT_EQ(bob.request(100, 2, zq::wrap_message(""))->result(), 0);
    ASSERT_EQ(alice.request(101, 3, zq::wrap_message(""))->result(), 0);  // room 1001, alice is 1
    ASSERT_EQ(bob.request(102, 3, zq::wrap_message(zq::FieldMessage().number(1, 1001).bytes()))->result(), 0);

    // Alice's kick is held by the service; she leaves while it is out.
    kick_gate.open = false;
    ASSERT_TRUE(alice.send_request(110, 4, zq::wrap_message(zq::FieldMessage().number(3, 9).bytes())));
    ASSERT_TRUE(kick_gate.wait_held());
    alice.close();
    FakeGame& carol = rig.game("carol");
    ASSERT_EQ(bob.request(111, 4, "")->result(), 0);
    EXPECT_EQ(matching.rooms.room_members(1001).size(), 2u);
    kick_gate.open = true;
    EXPECT_TRUE(log.wait_for("tcp: session for 'alice' closed"));
    EXPECT_EQ(matching.rooms.room_members(1001).size(), 1u);
    EXPECT_TRUE(log.wait_for("event: member 1 left (leave_room)"));

    // Bob leaves while his pump's poll is held.
    poll_gate.open = false;
    ASSERT_TRUE(poll_gate.wait_held());
    bob.close();
    auto reply = carol.request(101, 2, zq::wrap_message(""));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), 0);
    EXPECT_FALSE(log.contains("tcp: session for 'bob' closed"));  // his session waits for its pump
    poll_gate.open = true;
    EXPECT_TRUE(log.wait_for("tcp: session for 'bob' closed"));
    EXPECT_TRUE(matching.rooms.room_members(1001).empty());
    EXPECT_EQ(rig.service.requests_to(kLeave).size(), 2u);

    auto began = std::chrono::steady_clock::now();
    bridge.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
    EXPECT_TRUE(carol.wait_closed());
}

// A player whose state file cannot be replaced logs in all the same, goes on with the account in
// memory, and finds the file as it was. The check is what the game and the service see. The
// name of the file's lock is taken by a folder, or the state file's folder is a plain file (both
// refuse the write even to an administrator).
TEST(BridgeFaults, StateFileThatCannotBeWrittenKeepsTheAccountInMemoryAndTheOldFileWhole) {
    enum How { NameTaken, FolderIsAFile };
    for (How how : {NameTaken, FolderIsAFile}) {
        SCOPED_TRACE(how);
        BridgeRig rig;
        std::filesystem::path state = rig.state();
        const std::string before =
            json{{"accounts", {{"elder", {{"velmar_name", "elder"}, {"recovery_code", "rc-old"}}}}}}.dump();
        if (how == NameTaken) std::filesystem::create_directory(rig.dir.path() / "state.json.lock");
        if (how == FolderIsAFile) {
            write_file(rig.dir.path() / "plain", "not a folder");
            state = rig.dir.path() / "plain" / "state.json";
            rig.config.state_file = zq::wide_to_utf8(state.wstring());
        } else {
            write_file(state, before);
        }
        ASSERT_TRUE(rig.start());
        FakeGame& game = rig.game("fresh");
        // The player is told that nothing was stored, and the log does not claim otherwise.
        EXPECT_FALSE(rig.log.contains("velmar: created account 'fresh'"));
        EXPECT_EQ(rig.log.count_containing("velmar: could not save the account 'fresh'"), 1);
        const std::string token = rig.accounts->get("fresh").token;
        ASSERT_FALSE(token.empty());

        EXPECT_EQ(zq::string_field(fields_of(game.request(39, 2, "")->payload()), 1), token);
        ASSERT_EQ(game.request(100, 3, zq::wrap_message(""))->result(), 0);
        EXPECT_EQ(rig.service.requests_to("/mp/matching2/context_start").at(0).header("X-ZQ-Token"), token);
        if (how == FolderIsAFile)
            EXPECT_FALSE(std::filesystem::exists(state));
        else
            EXPECT_EQ(read_file(state), before);
    }
}
