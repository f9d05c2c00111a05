// Every sub-command but sysupgrade, end to end against qord-sim.
#include <gtest/gtest.h>

#include "harness.h"

namespace e2e {
namespace {

const std::string kMac = "02:00:5E:10:00:01";
const std::string kIdentities =
    "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 353456789012348\n\tSERIAL: QS-000001\n";
const std::string kPsi = R"({"apn":"internet","band":{"lte":[1,3,7,20]},"roaming":false})";

struct Board {
    TempDir dir;
    std::string state;
    std::unique_ptr<Sim> sim;

    explicit Board(std::vector<std::string> args = {}, const std::string& stateJson = "") {
        state = dir.file("state.json");
        if (!stateJson.empty()) dir.write("state.json", stateJson);
        args.insert(args.begin(), {"--state", state});
        sim.reset(new Sim(args));
    }
    Result run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--url", sim->address()});
        return run_qorc(args);
    }
    std::string hello() const { return "Try to connect to " + sim->address() + "\n"; }
};

void expect(const Result& r, int status, const std::string& out, const std::string& err) {
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, err);
}

TEST(Devices, FirmwareSourceAndFallback) {
    Board b;
    expect(b.run({"fw_config_mode"}), 0, b.hello() + "FW configuration mode: FFF\n", "");
    expect(b.run({"fallback_ffh"}), 0,
           b.hello() + "Fallback to FFH...\rFallback to FFH completed, rebooting\n", "");
    ASSERT_TRUE(b.sim->wait_output("back on"));
    expect(b.run({"fw_config_mode"}), 0, b.hello() + "FW configuration mode: FFH\n", "");
    EXPECT_NE(read_file(b.state).find("\"firmware_source\":\"FFH\""), std::string::npos);
}

TEST(Devices, PsiReadAndAmend) {
    Board b;
    expect(b.run({"psi_get"}), 0, b.hello() + kPsi + "\n", "");

    const std::string out = b.dir.file("out.json");
    expect(b.run({"psi_get", out}), 0, b.hello(), "");
    EXPECT_EQ(read_file(out), kPsi + "\n");

    // Sent as it stands, trailing newline included; applied as a merge patch.
    const std::string patch = "{\"roaming\": true, \"band\": null}\n";
    expect(b.run({"psi_set", b.dir.write("patch.json", patch)}), 0,
           b.hello() + "json: " + patch + "\n", "");
    expect(b.run({"psi_get"}), 0, b.hello() + R"({"apn":"internet","roaming":true})" + "\n", "");

    expect(b.run({"psi_set", b.dir.write("bad.json", "{nope")}), 1, b.hello() + "json: {nope\n",
           "Error: PSI amend refused: the text is not valid JSON\n");
    expect(b.run({"psi_set", b.dir.write("empty.json", "")}), 1, b.hello() + "json: \n",
           "Error: PSI amend refused: the text is not valid JSON\n");
    expect(b.run({"psi_get"}), 0, b.hello() + R"({"apn":"internet","roaming":true})" + "\n", "");
}

TEST(Devices, UnopenableFilesGiveStatusTwo) {
    // Any remote call would break the connection and say so.
    Board b({"--drop", "get", "--drop", "psi.get"});
    const std::string missing = b.dir.file("missing/none.json");
    expect(b.run({"psi_set", missing}), 2, b.hello(), "Failed to open \"" + missing + "\"\n");
    expect(b.run({"reset_imei", missing}), 2, b.hello(), "Failed to open \"" + missing + "\"\n");
    const std::string dir = b.dir.path();
    expect(b.run({"psi_set", dir}), 2, b.hello(), "Failed to open \"" + dir + "\"\n");
    expect(b.run({"reset_imei", dir}), 2, b.hello(), "Failed to open \"" + dir + "\"\n");

    // psi_get asks the board before it opens its output file.
    Board fine;
    expect(fine.run({"psi_get", missing}), 2, fine.hello(), "Failed to open \"" + missing + "\"\n");
    Result r = b.run({"psi_get", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.substr(r.err.find("Error: ")), "Error: Connection lost\n");
}

TEST(Devices, ResetImeiFindsThePasscodeByMac) {
    Board b({}, R"({"devices": [{"id": 0, "mac": "02:00:5E:10:00:01", "imei": "111",
                "factory_imei": "353456789012348", "serial": "QS-000001",
                "imei_reset_passcode": "RESET 12 34"}]})");
    const std::string before =
        "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 111\n\tSERIAL: QS-000001\n";
    // Lower case with dashes matches; blanks around the passcode go, inner ones stay;
    // the first record wins.
    const std::string file = b.dir.write("codes.txt",
                                         "\n  aa:bb:cc:dd:ee:ff other\n"
                                         "02-00-5e-10-00-01 \t RESET 12 34  \n"
                                         "02:00:5E:10:00:01 wrong\n");
    expect(b.run({"reset_imei", file}), 0, b.hello() + before, "");
    expect(b.run({"reset_imei", file}), 0, b.hello() + kIdentities, "");
    EXPECT_NE(read_file(b.state).find("\"imei_resets\":2"), std::string::npos);

    expect(b.run({"reset_imei", b.dir.write("wrong.txt", "02-00-5E-10-00-01 RESET 1234\n")}), 1,
           b.hello() + kIdentities, "Error: IMEI reset refused: wrong passcode\n");
    expect(b.run({"reset_imei", b.dir.write("none.txt", "aa-bb-cc-dd-ee-ff RESET 12 34\n")}), 1,
           b.hello() + kIdentities, "No passcode found for this device (" + kMac + ")\n");
    expect(b.run({"reset_imei", b.dir.write("empty.txt", "")}), 1, b.hello() + kIdentities,
           "No passcode found for this device (" + kMac + ")\n");
}

TEST(Devices, ResetImeiEdgeRecords) {
    // A line with only the MAC sends an empty passcode.
    Board b({}, R"({"devices": [{"id": 0, "mac": "", "imei": "1", "serial": "S",
                "imei_reset_passcode": ""}]})");
    const std::string ids = "device identities:\n\tMAC: \n\tIMEI: 1\n\tSERIAL: S\n";
    // An empty MAC matches the extra pass after the final newline, which
    // reuses the last record's passcode: here a wrong one.
    expect(b.run({"reset_imei", b.dir.write("a.txt", "aa-bb-cc-dd-ee-ff left-over\n")}), 1,
           b.hello() + ids, "Error: IMEI reset refused: wrong passcode\n");
    expect(b.run({"reset_imei", b.dir.write("b.txt", "aa-bb-cc-dd-ee-ff\n")}), 0, b.hello() + ids,
           "");
}

TEST(Devices, Activate) {
    Board b;
    expect(b.run({"activate", "TALVEX-0000"}), 1, b.hello(),
           "Error: TALVEX activation refused: wrong passcode\n");
    EXPECT_EQ(read_file(b.state), "");  // nothing accepted, nothing written
    expect(b.run({"activate", "TALVEX-5678"}), 0, b.hello(), "");
    EXPECT_NE(read_file(b.state).find("\"talvex_active\":true"), std::string::npos);
}

TEST(Devices, RemoteFailuresEndInErrorLines) {
    Board b({"--fail", "fw_config_mode=flash is busy", "--refuse", "psi.get", "--drop",
             "identities.get"});
    expect(b.run({"fw_config_mode"}), 1, b.hello(), "Error: flash is busy\n");
    expect(b.run({"psi_get"}), 1, b.hello(), "Error: No handler found\n");
    expect(b.run({"reset_imei", b.dir.write("c.txt", "x y\n")}), 1, b.hello(),
           "Worker got exception: Failed to read data from server: Success\n"
           "Error: Connection lost\n");
}

TEST(Devices, UnknownDeviceFailsEveryDeviceSubCommand) {
    Board b({}, R"({"devices": [{"id": 5}]})");
    const std::string passcodes = b.dir.write("codes", kMac + " 1234\n");
    const std::string psi = b.dir.write("psi.json", "{}");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"psi_get"}, {"psi_set", psi}, {"reset_imei", passcodes}, {"activate", "1234"}}) {
        expect(b.run(args), 1, b.hello(), "Error: device not found\n");
    }
}

TEST(Devices, BoardThatSplitsItsFrames) {
    Board b({"--split-frames"});
    expect(b.run({"psi_get"}), 0, b.hello() + kPsi + "\n", "");
    expect(b.run({"fw_config_mode"}), 0, b.hello() + "FW configuration mode: FFF\n", "");
}

TEST(Devices, HandshakeMismatch) {
    Board b({"--handshake-version", "2"});
    expect(b.run({"discover"}), 1, b.hello(),
           "Error: Failed to connect, socket protocol mismatch\n");
}

}  // namespace
}  // namespace e2e
