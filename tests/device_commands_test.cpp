// SPDX-License-Identifier: Apache-2.0
// Every sub-command but sysupgrade, end to end against qord-sim: each
// scenario is a simulator set up its way and the runs made against it, in
// order, each with its exit status and whole output.
#include <gtest/gtest.h>

#include "harness.h"

namespace e2e {
namespace {

const std::string kMac = "02:00:5E:10:00:01";
const std::string kIdentities =
    "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 353456789012348\n\tSERIAL: QS-000001\n";
const std::string kEmptyMac = "device identities:\n\tMAC: \n\tIMEI: 1\n\tSERIAL: S\n";
const std::string kPsi = R"({"apn":"internet","band":{"lte":[1,3,7,20]},"roaming":false})";
const std::string kNotJson = "Error: PSI amend refused: the text is not valid JSON\n";
const std::string kNoPasscode = "No passcode found for this device (" + kMac + ")\n";
const std::string kWrongPasscode = "Error: IMEI reset refused: wrong passcode\n";
const std::string kDropped =
    "Worker got exception: Failed to read data from server: Success\nError: Connection lost\n";
const std::string kMissing = "{dir}/missing/none.json";
const std::string kNotFound = "Error: device not found\n";

struct Step {
    std::vector<std::string> args;  // FILE:name=content writes a file; {dir} is the scratch folder
    int status;
    std::string out;  // after the connection line
    std::string err;
};

struct Scenario {
    std::string name;
    std::vector<std::string> sim_args;
    std::string state;  // the state file's text; empty: the simulator's defaults
    std::vector<Step> steps;
    std::string file = "state.json";  // at the end this file holds
    std::string holds = "";           // this text (empty: the file is empty or absent)
};

// clang-format off
const Scenario kScenarios[] = {
    {"psi read and amend: sent as it stands, applied as a merge patch", {}, "", {
        {{"psi_get"}, 0, kPsi + "\n", ""},
        {{"psi_set", "FILE:p.json={\"roaming\": true, \"band\": null}\n"}, 0,
         "json: {\"roaming\": true, \"band\": null}\n\n", ""},
        {{"psi_set", "FILE:bad.json={nope"}, 1, "json: {nope\n", kNotJson},
        {{"psi_set", "FILE:empty.json="}, 1, "json: \n", kNotJson},
        {{"psi_get"}, 0, "{\"apn\":\"internet\",\"roaming\":true}\n", ""}},
     "state.json", "\"roaming\":true"},
    {"psi_get into a file, which is opened after the board answered", {}, "", {
        {{"psi_get", kMissing}, 2, "", "Failed to open \"" + kMissing + "\"\n"},
        {{"psi_get", "{dir}/out.json"}, 0, "", ""}},
     "out.json", kPsi + "\n"},
    // Lower case with dashes matches; blanks around the passcode go, inner
    // ones stay; the first record wins.
    {"reset_imei finds the passcode by MAC", {}, R"({"devices": [{"id": 0, "mac": "02:00:5E:10:00:01",
        "imei": "111", "factory_imei": "353456789012348", "serial": "QS-000001",
        "imei_reset_passcode": "RESET 12 34"}]})", {
        {{"reset_imei", "FILE:c.txt=\n  aa:bb:cc:dd:ee:ff other\n02-00-5e-10-00-01 \t RESET 12 34  \n"
          "02:00:5E:10:00:01 wrong\n"}, 0,
         "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 111\n\tSERIAL: QS-000001\n", ""},
        {{"reset_imei", "FILE:c.txt"}, 0, kIdentities, ""},
        {{"reset_imei", "FILE:w.txt=02-00-5E-10-00-01 RESET 1234\n"}, 1, kIdentities, kWrongPasscode},
        {{"reset_imei", "FILE:n.txt=aa-bb-cc-dd-ee-ff RESET 12 34\n"}, 1, kIdentities, kNoPasscode},
        {{"reset_imei", "FILE:e.txt="}, 1, kIdentities, kNoPasscode}},
     "state.json", "\"imei_resets\":2"},
    // An empty MAC matches the extra pass after the final newline, which
    // reuses the last record's passcode; a line with only a MAC sends an
    // empty one.
    {"reset_imei with an empty MAC", {},
     R"({"devices": [{"id": 0, "mac": "", "imei": "1", "serial": "S", "imei_reset_passcode": ""}]})", {
        {{"reset_imei", "FILE:a.txt=aa-bb-cc-dd-ee-ff left-over\n"}, 1, kEmptyMac, kWrongPasscode},
        {{"reset_imei", "FILE:b.txt=aa-bb-cc-dd-ee-ff\n"}, 0, kEmptyMac, ""}},
     "state.json", "\"imei_resets\":1"},
    {"a refused activation writes nothing", {}, "", {
        {{"activate", "TALVEX-0000"}, 1, "", "Error: TALVEX activation refused: wrong passcode\n"}}},
    {"activation", {}, "", {{{"activate", "TALVEX-5678"}, 0, "", ""}},
     "state.json", "\"talvex_active\":true"},
    {"input files that do not open, before any remote call", {"--drop", "get"}, "", {
        {{"psi_set", kMissing}, 2, "", "Failed to open \"" + kMissing + "\"\n"},
        {{"reset_imei", kMissing}, 2, "", "Failed to open \"" + kMissing + "\"\n"},
        {{"psi_set", "{dir}"}, 2, "", "Failed to open \"{dir}\"\n"},
        {{"reset_imei", "{dir}"}, 2, "", "Failed to open \"{dir}\"\n"},
        {{"psi_get", kMissing}, 1, "", kDropped}}},
    {"remote failures", {"--fail", "fw_config_mode=flash is busy", "--refuse", "psi.get", "--drop",
                         "identities.get"}, "", {
        {{"fw_config_mode"}, 1, "", "Error: flash is busy\n"},
        {{"psi_get"}, 1, "", "Error: No handler found\n"},
        {{"reset_imei", "FILE:c.txt=x y\n"}, 1, "", kDropped}}},
    {"unknown device", {}, R"({"devices": [{"id": 5}]})", {
        {{"psi_get"}, 1, "", kNotFound},
        {{"psi_set", "FILE:psi.json={}"}, 1, "", kNotFound},
        {{"reset_imei", "FILE:codes=" + kMac + " 1234\n"}, 1, "", kNotFound},
        {{"activate", "1234"}, 1, "", kNotFound}},
     "state.json", R"({"devices": [{"id": 5}]})"},
    {"a board that splits its frames", {"--split-frames"}, "", {
        {{"psi_get"}, 0, kPsi + "\n", ""},
        {{"fw_config_mode"}, 0, "FW configuration mode: FFF\n", ""}}},
    {"handshake mismatch", {"--handshake-version", "2"}, "", {
        {{"discover"}, 1, "", "Error: Failed to connect, socket protocol mismatch\n"}}},
};
// clang-format on

// FILE:name=content writes the file, FILE:name names one written before;
// {dir} stands for the scratch folder.
std::string resolve(std::string arg, const TempDir& dir) {
    if (arg.compare(0, 5, "FILE:") == 0) {
        const size_t eq = arg.find('=');
        if (eq == std::string::npos) return dir.file(arg.substr(5));
        return dir.write(arg.substr(5, eq - 5), arg.substr(eq + 1));
    }
    const size_t at = arg.find("{dir}");
    return at == std::string::npos ? arg : arg.replace(at, 5, dir.path());
}

TEST(Devices, Scenarios) {
    for (const Scenario& s : kScenarios) {
        SCOPED_TRACE(s.name);
        TempDir dir;
        const std::string state =
            s.state.empty() ? dir.file("state.json") : dir.write("state.json", s.state);
        std::vector<std::string> args = {"--state", state};
        args.insert(args.end(), s.sim_args.begin(), s.sim_args.end());
        Sim sim(args);
        for (const Step& step : s.steps) {
            std::vector<std::string> words;
            for (const std::string& a : step.args) words.push_back(resolve(a, dir));
            EXPECT_RUN(sim.run(words), step.status, sim.hello() + step.out, resolve(step.err, dir))
                << step.args[0];
        }
        const std::string text = read_file(dir.file(s.file));
        EXPECT_TRUE(s.holds.empty() ? text.empty() : text.find(s.holds) != std::string::npos)
            << s.file << ": " << text;
    }
}

TEST(Devices, FallbackRebootsIntoFirmwareFromHost) {
    TempDir dir;
    Sim sim({"--state", dir.file("state.json")});
    EXPECT_RUN(sim.run({"fw_config_mode"}), 0, sim.hello() + "FW configuration mode: FFF\n", "");
    EXPECT_RUN(sim.run({"fallback_ffh"}), 0,
               sim.hello() + "Fallback to FFH...\rFallback to FFH completed, rebooting\n", "");
    ASSERT_TRUE(sim.wait_output("back on"));
    EXPECT_RUN(sim.run({"fw_config_mode"}), 0, sim.hello() + "FW configuration mode: FFH\n", "");
    EXPECT_NE(read_file(dir.file("state.json")).find("\"firmware_source\":\"FFH\""),
              std::string::npos);
}

}  // namespace
}  // namespace e2e
