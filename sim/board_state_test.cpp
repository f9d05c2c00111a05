// SPDX-License-Identifier: Apache-2.0
#include "board_state.h"
#include "error_of.h"
#include "files.h"

#include <unistd.h>

#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>

namespace qord_sim {
namespace {

// A state file in a scratch folder of its own, which goes with it.
struct StateFile {
    support::TempDir dir;
    std::string path = dir.file("state.json");
    void write(const std::string& text) { dir.write("state.json", text); }
    nlohmann::json read() const { return nlohmann::json::parse(support::read_file(path)); }
};

std::string load_error(const StateFile& file) {
    return support::error_of<std::runtime_error>([&] { BoardState state(file.path); });
}

TEST(BoardState, BadFilesAreRefusedNamingTheField) {
    StateFile file;
    const std::pair<std::string, std::string> cases[] = {
        {"[1, 2]", " is not a JSON object"},
        {"{oops", ": the text is not valid JSON"},
        {std::string(80, '[') + std::string(80, ']'), ": the JSON is nested deeper than 67 levels"},
        {R"({"firmware_source": 1})", ": /firmware_source must be a string"},
        {R"({"version": {"hex": "4"}})", ": /version must be a string or {\"hex\": \"...\"}"},
        {R"({"devices": {}})", ": /devices must be an array"},
        {R"({"devices": [{"mac": "x"}]})", ": /devices/0/id is missing"},
        {R"({"devices": [{"id": 1}, {"id": "2"}]})", ": /devices/1/id must be an integer"},
        {R"({"devices": [{"id": 1}, {"id": 1}]})",
         ": /devices/1/id repeats the id of another device"},
        {R"({"devices": [{"id": 1, "talvex_active": "no"}]})",
         ": /devices/0/talvex_active must be a boolean"},
        {R"({"devices": [{"id": 1, "imei_resets": -1}]})",
         ": /devices/0/imei_resets must be a whole number"},
        {R"({"devices": [{"id": 1, "imei": 353}]})", ": /devices/0/imei must be a string"},
    };
    for (const auto& c : cases) {
        file.write(c.first);
        EXPECT_EQ(load_error(file), "state file " + file.path + c.second) << c.first;
    }
    // Fields it does not know, and a device with only an id, are fine.
    file.write(R"({"comment": [1], "devices": [{"id": 7}], "version": {"hex": "c328"}})");
    EXPECT_EQ(load_error(file), "(no error)");
}

TEST(BoardState, DeepOrLargePatchesAreRefusedAndTheBoardGoesOn) {
    BoardState state("");
    const std::string before = *state.psi(0);
    auto refusal = [&](const std::string& patch) {
        return support::error_of<std::runtime_error>([&] { state.amend_psi(0, patch); });
    };
    // 50,000 deep, as objects and as arrays: refused before any parsing.
    std::string objects;
    for (int i = 0; i < 50000; ++i) objects += "{\"a\":";
    objects += "1" + std::string(50000, '}');
    EXPECT_EQ(refusal(objects), "PSI amend refused: the JSON is nested deeper than 64 levels");
    EXPECT_EQ(refusal(std::string(100000, '[') + std::string(100000, ']')),
              "PSI amend refused: the JSON is nested deeper than 64 levels");
    EXPECT_EQ(refusal(std::string(2 << 20, ' ') + "{}"),
              "PSI amend refused: the text is larger than 1048576 bytes");
    // Brackets inside strings are not nesting; 64 levels are allowed.
    std::string deepest;
    for (int i = 0; i < 63; ++i) deepest += "{\"k\":";
    deepest += "\"[[[{{{\\\"\"" + std::string(63, '}');
    EXPECT_EQ(refusal("{\"deep\":" + deepest + "}"), "(no error)");
    EXPECT_EQ(refusal("{\"deep\":{\"x\":" + deepest + "}}"),
              "PSI amend refused: the JSON is nested deeper than 64 levels");
    // Each patch is small, but the settings may not grow past the limit.
    const std::string chunk(600 * 1024, 'x');
    EXPECT_EQ(refusal("{\"one\":\"" + chunk + "\"}"), "(no error)");
    EXPECT_EQ(refusal("{\"two\":\"" + chunk + "\"}"),
              "PSI amend refused: the settings would be larger than 1048576 bytes");
    EXPECT_EQ(refusal("{\"one\":null,\"deep\":null}"), "(no error)");
    EXPECT_EQ(*state.psi(0), before);
}

TEST(BoardState, VersionsOfAnyBytesSurviveTheFile) {
    StateFile file;
    const std::string bytes("QORFW \xff\xfe\0\x80 caf\xc3\xa9", 16);
    {
        BoardState state(file.path);
        state.install_firmware(bytes, "m1");
        EXPECT_EQ(state.version(), bytes);
    }
    // "QORFW ", ff fe 00 80, " caf", "é" in UTF-8.
    EXPECT_EQ(file.read()["version"], (nlohmann::json{{"hex",
                                                       "514f52465720"
                                                       "fffe0080"
                                                       "20636166"
                                                       "c3a9"}}));
    EXPECT_EQ(BoardState(file.path).version(), bytes);
    {
        BoardState state(file.path);
        state.install_firmware("2.0 café", "m2");
    }
    EXPECT_EQ(file.read()["version"], "2.0 café");
}

// At start the temporaries of dead writers go, and our own pid's leftover;
// those of live writers, and other files, stay. A save is compact and never
// follows a link planted where its temporary goes.
TEST(BoardState, StaleTemporariesGoAndSavingNeverFollowsALink) {
    StateFile file;
    const std::string tmp = file.path + ".tmp." + std::to_string(getpid());
    const std::string victim = file.path + ".victim";
    const std::string dead = file.path + ".tmp.999999999";  // above any pid_max
    const std::string alive = file.path + ".tmp.1";         // init is always there
    const std::string other = file.path + ".tmp.x";
    for (const std::string& p : {victim, dead, alive, other}) std::ofstream(p) << "keep";
    ASSERT_EQ(symlink(victim.c_str(), tmp.c_str()), 0);
    {
        BoardState state(file.path);
        for (const auto& [path, kept] :
             {std::pair{tmp, false}, {dead, false}, {alive, true}, {other, true}})
            EXPECT_EQ(access(path.c_str(), F_OK) == 0, kept) << path;
        ASSERT_EQ(symlink(victim.c_str(), tmp.c_str()), 0);  // planted again, later
        state.set_fff(false);
    }
    EXPECT_EQ(support::read_file(victim), "keep");
    EXPECT_NE(access(tmp.c_str(), F_OK), 0);
    const std::string text = support::read_file(file.path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_EQ(text.find(": "), std::string::npos) << text;
}

TEST(BoardState, UnwritableStateRefusesTheChange) {
    BoardState state("/nonexistent-dir/state.json");
    EXPECT_THROW(state.set_fff(false), std::runtime_error);
    EXPECT_TRUE(state.is_fff());
}

}  // namespace
}  // namespace qord_sim
