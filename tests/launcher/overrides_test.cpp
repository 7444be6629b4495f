#include "launcher/overrides.h"
#include "launcher/route.h"
#include "support/prelude.h"
#include "support/process.h"

TEST(ExtraEnv, EditsOneNameAndNormalisesBlanks) {
    struct Case {
        std::string text;
        std::optional<std::string> value;
        std::string expected;
    } cases[] = {
        {"", "3658", "NIMBRA7_P2P_PORT=3658"},
        {"", std::nullopt, ""},
        {"A=1  NIMBRA7_P2P_PORT=9 B=2", "3658", "A=1 B=2 NIMBRA7_P2P_PORT=3658"},
        {"A=1 B=2 NIMBRA7_P2P_PORT=3658", std::nullopt, "A=1 B=2"},
        {"NIMBRA7_P2P_PORT=1 NIMBRA7_P2P_PORT=2", "3", "NIMBRA7_P2P_PORT=3"},
        // The test is on the name and the equals sign together.
        {"NIMBRA7_P2P_PORT NIMBRA7_P2P_PORTX=1", std::nullopt, "NIMBRA7_P2P_PORT NIMBRA7_P2P_PORTX=1"},
        {"\tA=1\r\n B=2  ", std::nullopt, "A=1 B=2"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(zq::edit_extra_env(c.text, "NIMBRA7_P2P_PORT", c.value), c.expected) << '"' << c.text << '"';
}

TEST(Overrides, OwnFilesAreRecognisedByTheirMark) {
    TempDir dir;
    struct Case {
        const char* content;  // nullptr: no file
        bool own;
    } cases[] = {
        {R"({"_sarnlink": "x", "https://a:1": "http://b:2"})", true},
        {R"({"_note": "sarnlink: old"})", true},
        {R"({"_note": "sarnlink:"})", true},
        {R"({"_note": "sarnlink"})", false},
        {R"({"_note": "Sarnlink: old"})", false},
        {R"({"_note": 5})", false},
        {R"(["_sarnlink"])", false},
        {"{ \"_sarnlink\": ", false},
        {nullptr, false},
    };
    int n = 0;
    for (const auto& c : cases) {
        const auto path = dir.path() / ("case" + std::to_string(n++) + ".json");
        if (c.content) write_file(path, c.content);
        EXPECT_EQ(zq::is_own_overrides(path), c.own) << (c.content ? c.content : "(no file)");
    }
}
