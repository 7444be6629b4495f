#include <tuple>

#include "launcher/overrides.h"
#include "launcher/route.h"
#include "support/prelude.h"
#include "support/process.h"

TEST(ExtraEnv, EditsOneNameAndNormalisesBlanks) {
    const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
        {"", "3658", "NIMBRA7_P2P_PORT=3658"},
        {"", std::nullopt, ""},
        {"NIMBRA7_P2P_PORT=1 NIMBRA7_P2P_PORT=2", "3", "NIMBRA7_P2P_PORT=3"},
        // The test is on the name and the equals sign together.
        {"NIMBRA7_P2P_PORT NIMBRA7_P2P_PORTX=1", std::nullopt, "NIMBRA7_P2P_PORT NIMBRA7_P2P_PORTX=1"},
        {"\tA=1\r\n B=2  ", std::nullopt, "A=1 B=2"},
    };
    for (const auto& [text, value, expected] : cases)
        EXPECT_EQ(zq::edit_extra_env(text, "NIMBRA7_P2P_PORT", value), expected) << '"' << text << '"';
}

TEST(Overrides, OwnFilesAreRecognisedByTheirMark) {
    TempDir dir;
    const std::pair<const char*, bool> cases[] = {  // no content: no file
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
    for (const auto& [content, own] : cases) {
        const auto path = dir.path() / ("case" + std::to_string(n++) + ".json");
        if (content) write_file(path, content);
        EXPECT_EQ(zq::is_own_overrides(path), own) << (content ? content : "(no file)");
    }
}
