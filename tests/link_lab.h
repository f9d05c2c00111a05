// SPDX-License-Identifier: Apache-2.0
// A board and a host joined by a link that a test can break: two network
// namespaces of their own (the board answers on 192.168.15.1:7000), a veth
// pair between them, and the faults a real link has. The board "vanishes"
// when a tc rule on its end sends every packet, either way, to a link that
// is down: it neither answers nor refuses. Every address here exists only
// inside these namespaces, which go with the Lab, also on failure. Root only.
//
// Threads: the case's own thread builds the Lab, starts qorc and finishes;
// board threads (serve()) may call the faults, stop_listening, unacked and
// fail at the same time; m_boards changes only before qorc starts and once
// it has ended.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "hostile_board.h"

namespace e2e {

struct LabOutcome {
    Result run;              // qorc's
    double took = 0;         // seconds from qorc's start to its exit
    double from_fault = -1;  // seconds from the first fault to qorc's exit; -1: no fault
    std::string trouble;     // the case could not be set up as it claims
};

class Lab {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr const char* kBoard = "192.168.15.1";

    // Namespaces qlf<pid>_<index>h and ...b, made by build().
    explicit Lab(int index);
    ~Lab();  // kills what runs, joins the board threads, removes the namespaces
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;

    // Makes the namespaces and the links, and checks that a vanished board
    // really is silent. Throws std::runtime_error when it cannot.
    void build();

    // Faults. The first one marks the time the fault began.
    void vanish();        // nothing reaches the board, nothing leaves it
    void drop_inbound();  // what the host sends is lost
    void revive();        // after vanish: the link works again
    void pull_cable();    // the host's end of the link goes down
    void mark_fault();

    // The board's side.
    int listen();                                // a socket listening on the board's address
    void keep(int fd) { m_kept.push_back(fd); }  // closed when the Lab goes
    // Listens, then hands every connection in turn to `script` on a board
    // thread, until the case is over; std::runtime_error ends a connection's
    // script quietly.
    void serve(HostileBoard::Script script);
    // Connections to the board's address are refused from now on.
    void stop_listening() { m_boards.back()->stop_listening(); }
    void start_sim(std::vector<std::string> args);  // qord-sim on the board
    std::string sim_out() const;

    // The host's side.
    std::string write(const std::string& name, const std::string& content) {
        return m_dir.write(name, content);
    }
    void start_qorc(const std::vector<std::string>& args);  // --url is the board's
    bool qorc_running() { return m_qorc && m_qorc->running(); }
    std::string qorc_out() const { return read_file(m_dir.file("out")); }
    // Bytes qorc has written that the board has not acknowledged, from the
    // host's socket table; -1 without a connection.
    long unacked();

    // The case is not what it claims to be: noted, and thrown as
    // std::runtime_error to end the board's script.
    void fail(const std::string& why);

    // Waits for qorc (at most 120 s), then ends the board threads.
    LabOutcome finish();

  private:
    void drop(const char* way);
    bool board_answers();

    Namespaces m_net;
    TempDir m_dir;
    std::unique_ptr<support::ServerProcess> m_sim;
    std::unique_ptr<Process> m_qorc;
    Clock::time_point m_started;
    std::vector<std::unique_ptr<HostileBoard>> m_boards;
    std::vector<int> m_kept;
    std::mutex m_mutex;         // board threads and the case's own
    Clock::time_point m_fault;  // guarded by m_mutex
    std::string m_trouble;      // guarded by m_mutex
};

}  // namespace e2e
