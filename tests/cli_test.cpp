// SPDX-License-Identifier: Apache-2.0
// The command line of qorc: messages, help, exit statuses, dispatch.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "harness.h"

namespace e2e {
namespace {

// Written out from the documented help text, not taken from the program.
const std::string kHelp =
    " [--url|-u <address>[:<port>] ] [--bind <bind address>] [-h] <sub-command>\n"
    "\n"
    "Global options:\n"
    "\t-h: Displays this help\n"
    "\t--url|-u <address>[:port]: URL to contact qord, default is 192.168.15.1:7000\n"
    "\t--bind <bind address>: Local IP interface to bind to before connecting to device.\n"
    "\t                       Use this option when there is more than one device on the\n"
    "\t                       host.\n"
    "\n"
    "Sub-commands:\n"
    "\tsysupgrade [-c] [-n] [--timeout|-t <seconds] [--reboot-url <url>] <fw>\n"
    "\t\tDescription:\n"
    "\t\t\tUpgrade device system with the <fw> image (*.zpk). By default it\n"
    "\t\t\tkeeps files defined in device /etc/sysupgrade.conf\n"
    "\n"
    "\t\tOptions:\n"
    "\t\t\t-c: Keep configuration, all files in /etc are kept during system\n"
    "\t\t\t    upgrade.\n"
    "\t\t\t-n: Do not keep files defined in device /etc/sysupgrade.conf\n"
    "\t\t\t--timeout|-t <seconds>: maximum time to wait target for reboot.\n"
    "\t\t\t                        Default is 180s.\n"
    "\t\t\t--reboot-url: url to contact qord after upgrade reboot. Useful when IP\n"
    "\t\t\t              changes after upgrade.\n"
    "\n\n"
    "\tactivate <passcode>\n"
    "\t\tDescription:\n"
    "\t\t\tActivate TALVEX mode on device.\n"
    "\n\n"
    "\tfallback_ffh\n"
    "\t\tDescription:\n"
    "\t\t\tPut device in Firmware From Host (FFH) mode.\n"
    "\t\t\tBeware: be sure to have at least a korvaned installed on host\n"
    "\t\t\t        with correct FFH (*.fw) firmware.\n"
    "\n\n"
    "\tfw_config_mode\n"
    "\t\tDescription:\n"
    "\t\t\tReturns FFH or FFF if device gets the Firmware from Flash or from Host\n"
    "\n\n"
    "\tpsi_get [json_path]\n"
    "\t\tDescription:\n"
    "\t\t\tReturns device Platform Specific Information (PSI) settings in json format.\n"
    "\t\t\tDefault is to return json to stdout unless a json_path is specified.\n"
    "\n\n"
    "\tpsi_set <json_path>\n"
    "\t\tDescription:\n"
    "\t\t\tAmend the device Platform Specific Information (PSI) settings from a json\n"
    "\t\t\tfile.\n"
    "\n";

// One run of qorc. In every text, {at} is the address under test, {usage}
// the help that follows a check message and {dir} a scratch folder; an
// argument FILE:name=content writes that file there, FILE:name names it.
struct Call {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
    std::string input = "";  // standard input; kFolder makes it a folder, which cannot be read
    std::string then = "";   // a line the simulator prints before the next run
};

// Runs against a simulator started with `sim` and the state file
// {dir}/state.json (`state` its text, if any), or with kNoBoard, qorc alone
// in an empty network namespace, with the address, if any, in the row. At
// the end the file `holds.first` contains `holds.second` (empty: the file is
// empty or absent).
struct Group {
    std::string name;
    std::vector<std::string> sim;
    std::vector<Call> runs;
    std::string state = "";
    std::pair<std::string, std::string> holds = {};
};

const std::vector<std::string> kNoBoard = {"none"};
const std::string kFolder = "{folder}";
const std::string kHello = "Try to connect to {at}\n";
const std::string kVersion = "qorc 4.2.3-41112\n";
const std::string kNoSub = "Error: expecting sub command\n{usage}";
const std::string kNoPasscode = "Error: TALVEX passcode is required\n{usage}";
const std::string kTimeout = "--timeout|-t option require a value > 0\n";
const std::string kPsi = R"({"apn":"internet","band":{"lte":[1,3,7,20]},"roaming":false})";
const std::string kIds =
    "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 353456789012348\n\tSERIAL: QS-000001\n";
const std::string kEmptyMac = "device identities:\n\tMAC: \n\tIMEI: 1\n\tSERIAL: S\n";
const std::string kFfh = "Fallback to FFH...\rFallback to FFH completed, rebooting\n";
const std::string kNoRecord = "No passcode found for this device (02:00:5E:10:00:01)\n";
const std::string kWrongCode = "Error: IMEI reset refused: wrong passcode\n";
const std::string kNotJson = "Error: PSI amend refused: the text is not valid JSON\n";
const std::string kNotFound = "Error: device not found\n";
const std::string kDropped =
    "Worker got exception: Failed to read data from server: Success\nError: Connection lost\n";
const std::string kMissing = "{dir}/missing/none.json";

std::string unexpected(const std::string& arg) {
    return "unexpected argument \"" + arg + "\"\n";
}
std::string unknown(const std::string& what, const std::string& arg) {
    return "unknown " + what + " \"" + arg + "\"\n";
}
std::string not_opened(const std::string& path) {
    return "Failed to open \"" + path + "\"\n";
}
// clang-format off
const Group kGroups[] = {
    {"help, version and the command-line scan", kNoBoard, {
        {{"-h", "--bogus"}, 0, "", "{usage}"},
        {{"--bogus", "-h"}, 1, "", unknown("option", "--bogus")},
        {{"--version", "-h", "--bogus"}, 0, kVersion, ""},
        {{"activate", "--version"}, 0, kVersion, ""},
        // Check messages come with the help; the fw check comes first.
        {{"--url", "127.0.0.5", "-c", "-n"}, 1, "", kNoSub},
        {{"sysupgrade", "psi_set"}, 1, "", "Error: fw path is required\n{usage}"},
        {{"psi_set"}, 1, "", "Error: json path is required\n{usage}"},
        {{"reset_imei"}, 1, "", "Error: file path is required\n{usage}"},
        {{"activate"}, 1, "", kNoPasscode},
        // A free argument goes to psi_get before activate, whatever the order.
        {{"psi_get", "activate", "TALVEX-5678"}, 1, "", kNoPasscode},
        // Scan messages stand alone, and stop everything behind them.
        {{"-u"}, 1, "", "--url|-u option require an argument\n"},
        {{"discover", "--url"}, 1, "", "--url|-u option require an argument\n"},
        {{"--bind"}, 1, "", "--bind option require an argument\n"},
        {{"-t"}, 1, "", "--timeout|-t option require an argument\n"},
        {{"--timeout", "0"}, 1, "", kTimeout},
        {{"--timeout", "abc"}, 1, "", kTimeout},
        {{"-t", "-5"}, 1, "", kTimeout},
        {{"sysupgrade", "a", "b"}, 1, "", unexpected("b")},
        {{"psi_get", "a", "b"}, 1, "", unexpected("b")},
        {{"activate", "a", "b"}, 1, "", unexpected("b")},
        {{"reset_imei", "a", "b"}, 1, "", unexpected("b")},
        {{"foo", "--version"}, 1, "", unknown("command", "foo")},
        {{""}, 1, "", unknown("command", "")},
        {{"-x"}, 1, "", unknown("option", "-x")},
        // A lone "-" is an operand; these sub-commands take none.
        {{"-"}, 1, "", unknown("command", "-")},
        {{"fw_version", "-"}, 1, "", unknown("command", "-")},
        // The default address, tried from an empty network namespace.
        {{"discover"}, 1, "Try to connect to 192.168.15.1:7000\n",
         "Error: Failed to connect to 192.168.15.1:7000\n"},
        // A later --url wins; an empty port or none is 7000.
        {{"-u", "127.0.0.9:1", "--url", "127.0.0.5:", "discover"}, 1,
         "Try to connect to 127.0.0.5:7000\n", "Error: Failed to connect to 127.0.0.5:7000\n"},
        {{"--url", "127.0.0.5", "discover"}, 1, "Try to connect to 127.0.0.5:7000\n",
         "Error: Failed to connect to 127.0.0.5:7000\n"},
        // For sysupgrade "-" is a file name like any other: the scan accepts it.
        {{"--url", "127.0.0.5", "sysupgrade", "-"}, 1, "Try to connect to 127.0.0.5:7000\n",
         "Error: Failed to connect to 127.0.0.5:7000\n"},
        // An option value is the next argument, whatever it looks like.
        {{"--url", "discover", "--url", "127.0.0.1:no-such-port", "discover"}, 1,
         "Try to connect to 127.0.0.1:no-such-port\n",
         "Error: Failed to resolve hostname 127.0.0.1:no-such-port\n"}}},
    {"discover, bind and the dispatch order", {"--reboot-delay-ms", "300"}, {
        {{"discover"}, 0, kHello, ""},
        {{"--bind", "127.0.0.2", "discover"}, 0, kHello, ""},
        {{"--bind", "192.0.2.1", "discover"}, 1, kHello, "Error: Failed to bind to 192.0.2.1\n"},
        // "30s" reads as 30; a trailing --reboot-url is taken as empty.
        {{"-t", "30s", "discover", "--reboot-url"}, 0, kHello, ""},
        // fw_version is last in the dispatch list, but it counts as a sub-command.
        {{"fw_version"}, 0, kHello + "FW version: qord-sim 1.0.0\n", ""},
        {{"discover", "fw_version"}, 0, kHello + "FW version: qord-sim 1.0.0\n", ""},
        {{"fw_version", "fw_config_mode"}, 0, kHello + "FW configuration mode: FFF\n", ""},
        {{"fw_version", "activate", "TALVEX-5678"}, 0, kHello, ""},
        // The output file is opened once the board has answered.
        {{"psi_get", kMissing}, 2, kHello, not_opened(kMissing)},
        // The path goes to reset_imei, then psi_get is set and runs first, with it.
        {{"reset_imei", "{dir}/psi.json", "psi_get"}, 0, kHello, ""},
        {{"psi_set", "{dir}/psi.json"}, 0, kHello + "json: " + kPsi + "\n\n", ""},
        // The argument before activate went to psi_set; activate still needs its own.
        {{"psi_get", "psi_set", "x", "activate"}, 1, "", kNoPasscode},
        // fallback_ffh wins over a valid sysupgrade; fw_config_mode precedes psi_get.
        {{"sysupgrade", "fw.zpk", "fallback_ffh"}, 0, kHello + kFfh, "", "", "back on"},
        {{"psi_get", "fw_config_mode"}, 0, kHello + "FW configuration mode: FFH\n", ""}},
     "", {"state.json", "\"firmware_source\":\"FFH\""}},
    {"remote failures", {"--fail", "fw_config_mode=flash = busy", "--fail",
                         "version=version store unreadable", "--refuse", "psi.get", "--drop",
                         "identities.get"}, {
        {{"fw_config_mode"}, 1, kHello, "Error: flash = busy\n"},
        {{"fw_version"}, 1, kHello, "Error: version store unreadable\n"},
        {{"psi_get"}, 1, kHello, "Error: No handler found\n"},
        {{"reset_imei", "FILE:c.txt=x y\n"}, 1, kHello, kDropped}}},
    // A PSI patch is sent as it stands and applied as a merge patch.
    {"a lone dash is standard input or output", {}, {
        {{"psi_get", "-"}, 0, kHello + kPsi + "\n", ""},
        // The whole of standard input, sent as it is.
        {{"psi_set", "-"}, 0, kHello + "json: {\"roaming\": true, \"band\": null}\n\n", "",
         "{\"roaming\": true, \"band\": null}\n"},
        {{"psi_set", "-"}, 1, kHello + "json: {nope\n", kNotJson, "{nope"},
        {{"psi_set", "FILE:empty.json="}, 1, kHello + "json: \n", kNotJson},
        {{"psi_get", "-"}, 0, kHello + R"({"apn":"internet","roaming":true})" "\n", ""},
        {{"reset_imei", "-"}, 0, kHello + kIds, "",
         "aa-bb-cc-dd-ee-ff x\n02-00-5e-10-00-01 RESET-1234\n"},
        {{"reset_imei", "-"}, 1, kHello + kIds, kWrongCode, "02-00-5e-10-00-01 RESET-0000\n"},
        {{"reset_imei", "-"}, 1, kHello + kIds, kNoRecord},
        // The first line of standard input, without its line end.
        {{"activate", "-"}, 0, kHello, "", "TALVEX-5678\nTALVEX-0000\n"},
        {{"activate", "-"}, 0, kHello, "", "TALVEX-5678\r\n"},
        {{"activate", "-"}, 0, kHello, "", "TALVEX-5678"},
        {{"activate", "-"}, 1, kHello, "Error: TALVEX activation refused: wrong passcode\n",
         "TALVEX-0000\nTALVEX-5678\n"},
        // Read before connecting: an empty one costs no connection.
        {{"activate", "-"}, 1, "", kNoPasscode, ""},
        {{"activate", "-"}, 1, "", kNoPasscode, "\nTALVEX-5678\n"}}},
    {"a refused activation writes nothing", {}, {
        {{"activate", "TALVEX-0000"}, 1, kHello,
         "Error: TALVEX activation refused: wrong passcode\n"}},
     "", {"state.json", ""}},
    {"activation", {}, {{{"activate", "TALVEX-5678"}, 0, kHello, ""}},
     "", {"state.json", "\"talvex_active\":true"}},
    // Lower case with dashes matches; blanks around the passcode go, inner
    // ones stay; the first record wins.
    {"reset_imei finds the passcode by MAC", {}, {
        {{"reset_imei", "FILE:c.txt=\n  aa:bb:cc:dd:ee:ff other\n"
          "02-00-5e-10-00-01 \t RESET 12 34  \n02:00:5E:10:00:01 wrong\n"}, 0,
         kHello + "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 111\n"
         "\tSERIAL: QS-000001\n", ""},
        {{"reset_imei", "FILE:c.txt"}, 0, kHello + kIds, ""},
        {{"reset_imei", "FILE:w.txt=02-00-5E-10-00-01 RESET 1234\n"}, 1, kHello + kIds,
         kWrongCode},
        {{"reset_imei", "FILE:n.txt=aa-bb-cc-dd-ee-ff RESET 12 34\n"}, 1, kHello + kIds,
         kNoRecord},
        {{"reset_imei", "FILE:e.txt="}, 1, kHello + kIds, kNoRecord}},
     R"({"devices": [{"id": 0, "mac": "02:00:5E:10:00:01", "imei": "111",
        "factory_imei": "353456789012348", "serial": "QS-000001",
        "imei_reset_passcode": "RESET 12 34"}]})",
     {"state.json", "\"imei_resets\":2"}},
    // An empty MAC matches the extra pass after the final newline, which
    // reuses the last record's passcode; a line with only a MAC sends an
    // empty one.
    {"reset_imei with an empty MAC", {}, {
        {{"reset_imei", "FILE:a.txt=aa-bb-cc-dd-ee-ff left-over\n"}, 1, kHello + kEmptyMac,
         kWrongCode},
        {{"reset_imei", "FILE:b.txt=aa-bb-cc-dd-ee-ff\n"}, 0, kHello + kEmptyMac, ""}},
     R"({"devices": [{"id": 0, "mac": "", "imei": "1", "serial": "S",
        "imei_reset_passcode": ""}]})"},
    {"unknown device", {}, {
        {{"psi_set", "FILE:psi.json={}"}, 1, kHello, kNotFound},
        {{"reset_imei", "FILE:codes=02:00:5E:10:00:01 1234\n"}, 1, kHello, kNotFound}},
     R"({"devices": [{"id": 5}]})", {"state.json", R"({"devices": [{"id": 5}]})"}},
    {"a board that splits its frames", {"--split-frames"}, {
        {{"psi_get"}, 0, kHello + kPsi + "\n", ""},
        {{"fw_config_mode"}, 0, kHello + "FW configuration mode: FFF\n", ""}}},
    {"handshake mismatch", {"--handshake-version", "2"}, {
        {{"discover"}, 1, kHello, "Error: Failed to connect, socket protocol mismatch\n"}}},
    // Files that cannot be read fail before any remote call. Reading a
    // folder fails, as a broken pipe or a disk error would.
    {"input that cannot be read", {"--drop", "get"}, {
        {{"psi_set", kMissing}, 2, kHello, not_opened(kMissing)},
        {{"reset_imei", kMissing}, 2, kHello, not_opened(kMissing)},
        {{"psi_set", "{dir}"}, 2, kHello, not_opened("{dir}")},
        {{"reset_imei", "{dir}"}, 2, kHello, not_opened("{dir}")},
        {{"psi_set", "-"}, 2, kHello, "Failed to read \"-\"\n", kFolder},
        {{"reset_imei", "-"}, 2, kHello, "Failed to read \"-\"\n", kFolder},
        {{"activate", "-"}, 2, "", "Failed to read \"-\"\n", kFolder},
        {{"psi_get", kMissing}, 1, kHello, kDropped}}},
};
// clang-format on

// FILE:name=content writes the file, FILE:name names one written before;
// then the values are filled in.
std::string resolve(const std::string& arg, const TempDir& dir,
                    const std::vector<std::pair<std::string, std::string>>& values) {
    if (arg.compare(0, 5, "FILE:") != 0) return fill(arg, values);
    const size_t eq = arg.find('=');
    if (eq == std::string::npos) return dir.file(arg.substr(5));
    return dir.write(arg.substr(5, eq - 5), arg.substr(eq + 1));
}

TEST(Cli, Runs) {
    for (const Group& g : kGroups) {
        SCOPED_TRACE(g.name);
        TempDir dir;
        std::unique_ptr<Sim> sim;
        if (g.sim != kNoBoard) {
            std::vector<std::string> args = {"--state", dir.file("state.json")};
            if (!g.state.empty()) dir.write("state.json", g.state);
            args.insert(args.end(), g.sim.begin(), g.sim.end());
            sim = std::make_unique<Sim>(args);
        }
        const std::string address = sim ? sim->address() : "";
        const std::vector<std::pair<std::string, std::string>> values = {
            {"{usage}", "Usage:\n" + std::string(qorc_binary()) + kHelp},
            {"{at}", address},
            {"{dir}", dir.path()}};
        for (const Call& r : g.runs) {
            std::vector<std::string> args;
            if (g.sim != kNoBoard) args = {"--url", address};
            for (const std::string& a : r.args) args.push_back(resolve(a, dir, values));
            SCOPED_TRACE(testing::PrintToString(args) + " reading " +
                         testing::PrintToString(r.input));
            const std::string input = r.input == kFolder ? dir.path() : dir.write("in", r.input);
            // Standard input from `input`, through a shell.
            args.insert(args.begin(), {"-c", "exec \"$@\" < \"$0\"", input, qorc_binary()});
            if (g.sim == kNoBoard) args.insert(args.begin() + 3, {"/usr/bin/unshare", "--net"});
            EXPECT_RUN(run_command("/bin/sh", args), r.status, fill(r.out, values),
                       fill(r.err, values));
            if (!r.then.empty()) {
                ASSERT_TRUE(sim->wait_output(r.then));
            }
        }
        const auto& [file, text] = g.holds;
        if (file.empty()) continue;
        const std::string held = read_file(dir.file(file));
        EXPECT_TRUE(text.empty() ? held.empty() : held.find(text) != std::string::npos)
            << file << ": " << held;
    }
}

TEST(Cli, HostNamesResolveThroughTheSystemResolver) {
    if (!enter_private_network()) GTEST_SKIP() << "needs a network namespace of its own";
    Sim sim;
    const std::string port = std::to_string(sim.port());
    EXPECT_RUN(run_at("localhost:" + port, {"discover"}), 0, hello("localhost:" + port), "");
    // A name nobody knows: here, no name server is reachable either.
    const std::string nobody = "no-such-board.invalid:" + port;
    EXPECT_RUN(run_at(nobody, {"discover"}), 1, hello(nobody),
               "Error: Failed to resolve hostname " + nobody + "\n");
}

TEST(Cli, PasscodeNeverShowsInTheProcessList) {
    if (under_emulator()) GTEST_SKIP() << "/proc shows the emulator's own arguments";
    Sim sim({"--stall", "activate"});  // qorc waits for an answer that never comes
    TempDir dir;
    const std::string code = "TALVEX-5678";
    Process qorc(qorc_binary(), {"--url", sim.address(), "activate", code}, dir.file("out"));
    // The line comes after the scan, which has overwritten the passcode.
    ASSERT_FALSE(support::wait_for_line(dir.file("out"), "Try to connect", 15000).empty());
    ASSERT_TRUE(sim.wait_output("connection from"));
    const std::string cmdline = read_file("/proc/" + std::to_string(qorc.pid()) + "/cmdline");
    // Still waiting well after the read: the cmdline was that of the run itself.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(qorc.running());
    EXPECT_EQ(cmdline.find(code), std::string::npos);
    const std::string expected = std::string(qorc_binary()) + '\0' + "--url" + '\0' +
                                 sim.address() + '\0' + "activate" + '\0' +
                                 std::string(code.size(), 'x') + '\0';
    EXPECT_EQ(cmdline, expected);
}

}  // namespace
}  // namespace e2e
