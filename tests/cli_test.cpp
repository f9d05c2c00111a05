// The command line of qorc: messages, help, exit statuses, dispatch.
#include <gtest/gtest.h>

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

std::string usage() {
    return "Usage:\n" + std::string(qorc_binary()) + kHelp;
}

void expect(const Result& r, int status, const std::string& out, const std::string& err) {
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, err);
}

TEST(Cli, HelpAndVersion) {
    expect(run_qorc({"-h"}), 0, "", usage());
    expect(run_qorc({"-h", "--bogus"}), 0, "", usage());
    expect(run_qorc({"--bogus", "-h"}), 1, "", "unknown option \"--bogus\"\n");
    expect(run_qorc({"--version"}), 0, "qorc 4.2.3-41112\n", "");
    expect(run_qorc({"--version", "-h", "--bogus"}), 0, "qorc 4.2.3-41112\n", "");
    expect(run_qorc({"activate", "--version"}), 0, "qorc 4.2.3-41112\n", "");
}

TEST(Cli, CheckMessagesComeWithTheHelp) {
    expect(run_qorc({}), 1, "", "Error: expecting sub command\n" + usage());
    expect(run_qorc({"--url", "127.0.0.5", "-c", "-n"}), 1, "",
           "Error: expecting sub command\n" + usage());
    expect(run_qorc({"sysupgrade"}), 1, "", "Error: fw path is required\n" + usage());
    expect(run_qorc({"psi_set"}), 1, "", "Error: json path is required\n" + usage());
    expect(run_qorc({"reset_imei"}), 1, "", "Error: file path is required\n" + usage());
    expect(run_qorc({"activate"}), 1, "", "Error: TALVEX passcode is required\n" + usage());
    // The fw check comes first.
    expect(run_qorc({"sysupgrade", "psi_set"}), 1, "", "Error: fw path is required\n" + usage());
}

TEST(Cli, ScanMessagesStandAlone) {
    expect(run_qorc({"-u"}), 1, "", "--url|-u option require an argument\n");
    expect(run_qorc({"discover", "--url"}), 1, "", "--url|-u option require an argument\n");
    expect(run_qorc({"--bind"}), 1, "", "--bind option require an argument\n");
    expect(run_qorc({"-t"}), 1, "", "--timeout|-t option require an argument\n");
    expect(run_qorc({"--timeout", "0"}), 1, "", "--timeout|-t option require a value > 0\n");
    expect(run_qorc({"--timeout", "abc"}), 1, "", "--timeout|-t option require a value > 0\n");
    expect(run_qorc({"-t", "-5"}), 1, "", "--timeout|-t option require a value > 0\n");
    expect(run_qorc({"sysupgrade", "a", "b"}), 1, "", "unexpected argument \"b\"\n");
    expect(run_qorc({"psi_get", "a", "b"}), 1, "", "unexpected argument \"b\"\n");
    expect(run_qorc({"activate", "a", "b"}), 1, "", "unexpected argument \"b\"\n");
    expect(run_qorc({"reset_imei", "a", "b"}), 1, "", "unexpected argument \"b\"\n");
    expect(run_qorc({"foo"}), 1, "", "unknown command \"foo\"\n");
    expect(run_qorc({""}), 1, "", "unknown command \"\"\n");
    expect(run_qorc({"-x"}), 1, "", "unknown option \"-x\"\n");
    // A lone "-" is an operand; these sub-commands take none.
    expect(run_qorc({"-"}), 1, "", "unknown command \"-\"\n");
    expect(run_qorc({"fw_version", "-"}), 1, "", "unknown command \"-\"\n");
    expect(run_qorc({"fw_version", "foo"}), 1, "", "unknown command \"foo\"\n");
    // A scan message stops everything behind it.
    expect(run_qorc({"foo", "--version"}), 1, "", "unknown command \"foo\"\n");
}

TEST(Cli, AddressForming) {
    // The default address, tried from an empty network namespace.
    expect(run_qorc({"discover"}), 1, "Try to connect to 192.168.15.1:7000\n",
           "Error: Failed to connect to 192.168.15.1:7000\n");
    const std::string closed = closed_address();
    const std::string port = closed.substr(closed.find(':') + 1);
    expect(run_qorc({"--url", closed, "discover"}), 1, "Try to connect to " + closed + "\n",
           "Error: Failed to connect to " + closed + "\n");
    // A later --url wins; an empty port is 7000.
    Result r = run_qorc({"-u", "127.0.0.9:1", "--url", "127.0.0.5:", "discover"});
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "Try to connect to 127.0.0.5:7000");
    r = run_qorc({"--url", "127.0.0.5", "discover"});
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "Try to connect to 127.0.0.5:7000");
    // An option value is the next argument, whatever it looks like.
    expect(run_qorc({"--url", "discover", "--url", "127.0.0.1:no-such-port", "discover"}), 1,
           "Try to connect to 127.0.0.1:no-such-port\n",
           "Error: Failed to resolve hostname 127.0.0.1:no-such-port\n");
}

TEST(Cli, DiscoverAndBind) {
    Sim sim;
    expect(run_qorc({"--url", sim.address(), "discover"}), 0,
           "Try to connect to " + sim.address() + "\n", "");
    expect(run_qorc({"--bind", "127.0.0.2", "-u", sim.address(), "discover"}), 0,
           "Try to connect to " + sim.address() + "\n", "");
    expect(run_qorc({"--bind", "192.0.2.1", "-u", sim.address(), "discover"}), 1,
           "Try to connect to " + sim.address() + "\n", "Error: Failed to bind to 192.0.2.1\n");
    // "30s" reads as 30; a trailing --reboot-url is taken as empty.
    expect(run_qorc({"-t", "30s", "-u", sim.address(), "discover", "--reboot-url"}), 0,
           "Try to connect to " + sim.address() + "\n", "");
}

TEST(Cli, HostNamesResolveThroughTheSystemResolver) {
    if (!enter_private_network()) GTEST_SKIP() << "needs a network namespace of its own";
    Sim sim;
    const std::string port = std::to_string(sim.port());
    expect(run_qorc({"--url", "localhost:" + port, "discover"}), 0,
           "Try to connect to localhost:" + port + "\n", "");
    EXPECT_TRUE(sim.wait_output("connection from"));
    // A name nobody knows: here, no name server is reachable either.
    expect(run_qorc({"--url", "no-such-board.invalid:" + port, "discover"}), 1,
           "Try to connect to no-such-board.invalid:" + port + "\n",
           "Error: Failed to resolve hostname no-such-board.invalid:" + port + "\n");
}

TEST(Cli, DispatchFollowsTheListNotTheWordOrder) {
    Sim sim;
    TempDir dir;
    const std::string file = dir.file("psi.json");
    // "file" goes to reset_imei, then psi_get is set and runs first, with it.
    Result r = run_qorc({"-u", sim.address(), "reset_imei", file, "psi_get"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Try to connect to " + sim.address() + "\n");
    EXPECT_EQ(read_file(file).substr(0, 7), "{\"apn\":");

    // fallback_ffh wins over a valid sysupgrade.
    expect(run_qorc({"-u", sim.address(), "sysupgrade", "fw.zpk", "fallback_ffh"}), 0,
           "Try to connect to " + sim.address() +
               "\nFallback to FFH...\rFallback to FFH completed, rebooting\n",
           "");
    ASSERT_TRUE(sim.wait_output("back on"));
    // fw_config_mode precedes psi_get.
    expect(run_qorc({"-u", sim.address(), "psi_get", "fw_config_mode"}), 0,
           "Try to connect to " + sim.address() + "\nFW configuration mode: FFH\n", "");
    // A free argument goes to psi_get before activate, whatever the order.
    expect(run_qorc({"psi_get", "activate", "TALVEX-5678"}), 1, "",
           "Error: TALVEX passcode is required\n" + usage());
    // The argument before activate went to psi_set; activate still needs its own.
    expect(run_qorc({"-u", sim.address(), "psi_get", "psi_set", "x", "activate"}), 1, "",
           "Error: TALVEX passcode is required\n" + usage());
    expect(run_qorc({"-u", sim.address(), "activate", "TALVEX-5678"}), 0,
           "Try to connect to " + sim.address() + "\n", "");
}

// One run of qorc and what it must print; `input` is its standard input.
struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
    std::string input = "";
};

// qorc with standard input read from the file (or directory) `input_path`.
Result run_qorc_reading(const std::string& input_path, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"-c", "exec \"$@\" < \"$0\"", input_path, qorc_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_command("/bin/sh", argv);
}

void run_cases(const std::string& address, const std::vector<Case>& cases) {
    TempDir dir;
    for (const Case& c : cases) {
        std::vector<std::string> args = {"--url", address};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(testing::PrintToString(args) + " reading " + testing::PrintToString(c.input));
        expect(run_qorc_reading(dir.write("stdin", c.input), args), c.status, c.out, c.err);
    }
}

TEST(Cli, FwVersion) {
    Sim sim;
    const std::string hello = "Try to connect to " + sim.address() + "\n";
    const std::string version = hello + "FW version: qord-sim 1.0.0\n";
    run_cases(sim.address(),
              {
                  {{"fw_version"}, 0, version, ""},
                  // Last in the dispatch list, but it counts as a sub-command.
                  {{"discover", "fw_version"}, 0, version, ""},
                  {{"fw_version", "fw_config_mode"}, 0, hello + "FW configuration mode: FFF\n", ""},
                  {{"fw_version", "activate", "TALVEX-5678"}, 0, hello, ""},
              });
    Sim bare({"--no-version"});
    run_cases(bare.address(), {{{"fw_version"},
                                1,
                                "Try to connect to " + bare.address() + "\n",
                                "Error: No handler found\n"}});
    Sim failing({"--fail", "version=version store unreadable"});
    run_cases(failing.address(), {{{"fw_version"},
                                   1,
                                   "Try to connect to " + failing.address() + "\n",
                                   "Error: version store unreadable\n"}});
}

TEST(Cli, DashIsStandardInputOrOutput) {
    Sim sim;
    const std::string hello = "Try to connect to " + sim.address() + "\n";
    const std::string ids =
        "device identities:\n\tMAC: 02:00:5E:10:00:01\n\tIMEI: 353456789012348\n"
        "\tSERIAL: QS-000001\n";
    const std::string patch = "{\"roaming\": true}\n";
    const std::string required = "Error: TALVEX passcode is required\n" + usage();
    run_cases(sim.address(),
              {
                  {{"psi_get", "-"},
                   0,
                   hello + R"({"apn":"internet","band":{"lte":[1,3,7,20]},"roaming":false})"
                           "\n",
                   ""},
                  // The whole of standard input, sent as it is.
                  {{"psi_set", "-"}, 0, hello + "json: " + patch + "\n", "", patch},
                  {{"psi_get", "-"},
                   0,
                   hello + R"({"apn":"internet","band":{"lte":[1,3,7,20]},"roaming":true})"
                           "\n",
                   ""},
                  {{"reset_imei", "-"},
                   0,
                   hello + ids,
                   "",
                   "aa-bb-cc-dd-ee-ff x\n02-00-5e-10-00-01 RESET-1234\n"},
                  {{"reset_imei", "-"},
                   1,
                   hello + ids,
                   "Error: IMEI reset refused: wrong passcode\n",
                   "02-00-5e-10-00-01 RESET-0000\n"},
                  {{"reset_imei", "-"},
                   1,
                   hello + ids,
                   "No passcode found for this device (02:00:5E:10:00:01)\n",
                   ""},
                  // The first line of standard input, without its line end.
                  {{"activate", "-"}, 0, hello, "", "TALVEX-5678\nTALVEX-0000\n"},
                  {{"activate", "-"}, 0, hello, "", "TALVEX-5678\r\n"},
                  {{"activate", "-"}, 0, hello, "", "TALVEX-5678"},
                  {{"activate", "-"},
                   1,
                   hello,
                   "Error: TALVEX activation refused: wrong passcode\n",
                   "TALVEX-0000\nTALVEX-5678\n"},
                  // Read before connecting: an empty one costs no connection.
                  {{"activate", "-"}, 1, "", required, ""},
                  {{"activate", "-"}, 1, "", required, "\nTALVEX-5678\n"},
              });
    // For sysupgrade it is a file name like any other: the scan accepts it.
    const std::string closed = closed_address();
    run_cases(closed, {{{"sysupgrade", "-"},
                        1,
                        "Try to connect to " + closed + "\n",
                        "Error: Failed to connect to " + closed + "\n"}});
}

TEST(Cli, UnreadableStandardInput) {
    // Reading a directory fails, as a broken pipe or a disk error would.
    Sim sim({"--drop", "get"});  // a remote call would say so
    TempDir dir;
    const std::string hello = "Try to connect to " + sim.address() + "\n";
    const std::vector<Case> cases = {
        {{"psi_set", "-"}, 2, hello, "Failed to read \"-\"\n"},
        {{"reset_imei", "-"}, 2, hello, "Failed to read \"-\"\n"},
        {{"activate", "-"}, 2, "", "Failed to read \"-\"\n"},  // before connecting
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"--url", sim.address()};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(testing::PrintToString(args));
        expect(run_qorc_reading(dir.path(), args), c.status, c.out, c.err);
    }
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
    ASSERT_TRUE(qorc.running());
    EXPECT_EQ(cmdline.find(code), std::string::npos);
    const std::string expected = std::string(qorc_binary()) + '\0' + "--url" + '\0' +
                                 sim.address() + '\0' + "activate" + '\0' +
                                 std::string(code.size(), 'x') + '\0';
    EXPECT_EQ(cmdline, expected);
}

}  // namespace
}  // namespace e2e
