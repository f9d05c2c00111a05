#include "board_state.h"

#include <unistd.h>

#include <gtest/gtest.h>
#include <fstream>
#include <sstream>

namespace qord_sim {
namespace {

struct StateFile {
    std::string path;
    StateFile() {
        char tmpl[] = "/tmp/qord-state-XXXXXX";
        const int fd = mkstemp(tmpl);
        close(fd);
        path = tmpl;
        unlink(tmpl);
    }
    ~StateFile() { unlink(path.c_str()); }
    void write(const std::string& text) { std::ofstream(path) << text; }
    nlohmann::json read() const {
        std::ifstream in(path);
        return nlohmann::json::parse(in);
    }
};

TEST(BoardState, PsiAmendIsAMergePatchAndPersists) {
    StateFile file;
    BoardState state(file.path);
    state.amend_psi(0, R"({"roaming": true, "band": {"lte": null, "nr": [78]}, "apn": null})");
    EXPECT_EQ(*state.psi(0), R"({"band":{"nr":[78]},"roaming":true})");
    EXPECT_EQ(file.read()["devices"][0]["psi"].dump(), R"({"band":{"nr":[78]},"roaming":true})");

    // Refused text changes nothing, in memory or on disk.
    EXPECT_THROW(state.amend_psi(0, "{\"roaming\": "), std::runtime_error);
    EXPECT_THROW(state.amend_psi(0, ""), std::runtime_error);
    EXPECT_THROW(state.amend_psi(9, "{}"), std::runtime_error);
    EXPECT_EQ(*state.psi(0), R"({"band":{"nr":[78]},"roaming":true})");
    EXPECT_FALSE(state.psi(9).has_value());

    BoardState reloaded(file.path);
    EXPECT_EQ(*reloaded.psi(0), R"({"band":{"nr":[78]},"roaming":true})");
}

TEST(BoardState, PasscodesGuardTheirChanges) {
    StateFile file;
    file.write(R"({"devices": [{"id": 3, "mac": "m", "imei": "1", "factory_imei": "2",
                   "imei_reset_passcode": "a b", "talvex_passcode": "t"}]})");
    BoardState state(file.path);
    EXPECT_FALSE(state.has_device(0));
    EXPECT_THROW(state.reset_imei(3, "a  b"), std::runtime_error);
    EXPECT_THROW(state.activate_talvex(3, "T"), std::runtime_error);
    EXPECT_EQ(state.identities(3)->imei, "1");
    state.reset_imei(3, "a b");
    state.activate_talvex(3, "t");
    EXPECT_EQ(state.identities(3)->imei, "2");
    const auto saved = file.read()["devices"][0];
    EXPECT_EQ(saved["imei"], "2");
    EXPECT_EQ(saved["talvex_active"], true);
}

TEST(BoardState, FirmwareIdentityAndSource) {
    BoardState state("");  // nothing written anywhere
    EXPECT_TRUE(state.is_fff());
    state.set_fff(false);
    EXPECT_FALSE(state.is_fff());
    state.install_firmware("2.0", "abcd");
    EXPECT_EQ(state.version(), "2.0");
    EXPECT_EQ(state.magic(), "abcd");
}

TEST(BoardState, BadFilesAreRefusedWithAReason) {
    StateFile file;
    for (const char* text :
         {"[1, 2]", "{\"devices\": {}}", "{\"devices\": [{\"mac\": \"x\"}]}", "{oops"}) {
        file.write(text);
        EXPECT_THROW(BoardState{file.path}, std::runtime_error) << text;
    }
}

TEST(BoardState, UnwritableStateRefusesTheChange) {
    BoardState state("/nonexistent-dir/state.json");
    EXPECT_THROW(state.set_fff(false), std::runtime_error);
    EXPECT_TRUE(state.is_fff());
}

}  // namespace
}  // namespace qord_sim
