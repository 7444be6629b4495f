#include "bridge/login.h"
#include "support/bridge_rig.h"

namespace {

// A bridge whose service keeps accounts, with a state file in a fresh folder. Tracing is on, so
// that the rig's look for tokens and recovery codes covers its lines too.
class Login : public ::testing::Test {
protected:
    void start_bridge(bool create_accounts = false) {
        rig.config.create_accounts = create_accounts;
        rig.config.trace = true;
        ASSERT_TRUE(rig.start());
        ASSERT_TRUE(game.connect_and_greet(rig.bridge().bound_tcp_port()));
    }

    // The reply's result code and, on success, the account id it carries.
    std::pair<int, std::uint64_t> login(const std::string& npid, const std::string& title = "DH") {
        auto reply = game.request(0, 1, zq::wrap_message(zq::FieldMessage().string(1, npid).string(4, title).bytes()));
        if (!reply) return {-1, 0};
        return {reply->result(), zq::number_field(fields_of(reply->payload()), 2, 0)};
    }

    void write_state(const json& accounts) { write_file(state(), json{{"accounts", accounts}, {"keep", 1}}.dump()); }
    std::filesystem::path state() const { return rig.state(); }
    json accounts() const { return json::parse(read_file(state()))["accounts"]; }

    BridgeRig rig;
    FakeAccounts& store = *rig.accounts;
    LogCapture& log = rig.log;
    FakeService& service = rig.service;
    FakeGame game;
};

TEST_F(Login, StoredTokenStandsAndIsKeptWhenTheServiceIsDown) {
    auto ash = store.add("ash");
    write_state({{"ash", {{"token", ash.token}, {"online_id", "Ash"}, {"recovery_code", ash.recovery_code}}}});
    start_bridge();
    auto [code, id] = login(" \tash\t ");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(id, zq::stable_account_id("ash"));
    EXPECT_EQ(log.count("login: npid='ash' title=DH"), 1);
    EXPECT_EQ(log.count("velmar: using the stored token for 'ash'"), 1);
    EXPECT_EQ(log.count(zq::format_text("login: account id %llu for 'ash'", static_cast<unsigned long long>(id))), 1);
    auto probe = service.requests_to("/np/signaling/resolve").at(0);
    EXPECT_EQ(probe.header("X-ZQ-Token"), ash.token);
    EXPECT_EQ(probe.json(), json({{"OnlineId", "Ash"}}));

    // The game asks for its identity: the token, the id and the name. Each reply has its trace line.
    const std::string identity = game.request(39, 2, "")->payload();
    zq::FieldList fields = fields_of(identity);
    EXPECT_EQ(zq::string_field(fields, 1), ash.token);
    EXPECT_EQ(zq::string_field(fields, 3), "ash");
    EXPECT_EQ(log.count(zq::format_text("cmd 39 pkt 2 -> error 0, %zu bytes", identity.size())), 1);

    service.stop();
    EXPECT_EQ(login("ash").first, 0);
    EXPECT_EQ(log.count("velmar: using the stored token for 'ash' (server unreachable, kept)"), 1);
    // An unreachable service leaves a peer unknown, quietly when there is no gateway.
    auto reply = game.request(105, 77, zq::wrap_message(bytes({0x0A, 0x01, 'p'})));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->body, bytes({26}));
    EXPECT_EQ(log.count("cmd 105 pkt 77 -> error 26, 0 bytes"), 1);
    EXPECT_FALSE(log.contains("signaling:"));
}

TEST_F(Login, RefusedTokenIsRecoveredUnlessDiscordLinked) {
    auto ash = store.add("ash");
    auto elm = store.add("elm");
    store.revoke_token("ash");
    store.revoke_token("elm");
    write_state({{"ash", {{"token", "stale"}, {"velmar_name", "ash"}, {"recovery_code", ash.recovery_code},
                          {"linked", "old"}, {"extra", 1}}},
                 {"local", {{"token", "stale"}, {"velmar_name", "elm"}, {"recovery_code", elm.recovery_code},
                            {"linked", "discord"}}}});
    start_bridge();

    EXPECT_EQ(login("ash").first, 0);
    EXPECT_EQ(log.count("velmar: stored token for 'ash' refused; recovering"), 1);
    EXPECT_EQ(log.count("velmar: recovered account 'ash'"), 1);
    auto now = store.get("ash");
    EXPECT_EQ(accounts()["ash"], json({{"velmar_name", "ash"}, {"recovery_code", now.recovery_code},
                                       {"token", now.token}, {"online_id", "ash"}}));
    EXPECT_EQ(json::parse(read_file(state()))["keep"], 1);

    EXPECT_EQ(login("local").first, 5);
    EXPECT_EQ(log.count("velmar: the Discord sign-in for 'elm' has expired - use 'Sign in with Discord' in "
                        "sarnlink again."),
              1);
    EXPECT_TRUE(service.requests_to("/auth/recover").size() == 1u) << "no recovery for a Discord account";
}

TEST_F(Login, CreationOnlyWhenAllowed) {
    start_bridge(false);
    EXPECT_EQ(login("newcomer").first, 5);
    EXPECT_EQ(log.count("velmar: no account for 'newcomer' on this PC - use 'Sign in with Discord' in sarnlink "
                        "first."),
              1);
    EXPECT_FALSE(std::filesystem::exists(state()));
    EXPECT_TRUE(service.requests().empty());
}

TEST_F(Login, CreatedTakenAndUnrecoverable) {
    store.add("taken");
    auto gone = store.add("gone");
    write_state({{"gone", {{"recovery_code", "not-" + gone.recovery_code}}}});
    start_bridge(true);

    EXPECT_EQ(login("fresh").first, 0);
    EXPECT_EQ(log.count("velmar: created account 'fresh' (token and recovery code stored in sarnlink_state.json - "
                        "keep that file)"),
              1);
    auto fresh = store.get("fresh");
    EXPECT_EQ(accounts()["fresh"], json({{"velmar_name", "fresh"}, {"recovery_code", fresh.recovery_code},
                                         {"token", fresh.token}, {"online_id", "fresh"}}));

    EXPECT_EQ(login("taken").first, 5);
    EXPECT_EQ(log.count("velmar: the name 'taken' is already taken on The Ember Court. Pick another online id "
                        "(NPID) in the orlond launcher."),
              1);
    EXPECT_TRUE(log.contains("velmar account failed for 'taken': /auth/account/create: refused: that name is taken"));

    EXPECT_EQ(login("gone").first, 5);
    EXPECT_EQ(log.count("velmar: the recovery code for 'gone' no longer works - the account cannot be recovered "
                        "from here. Pick a new online id in the launcher (or ask the server owner)."),
              1);
}

}  // namespace
