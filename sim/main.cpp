// SPDX-License-Identifier: Apache-2.0
// qord-sim: a simulated board for trying and testing qorc on one machine.
#include <pthread.h>
#include <signal.h>

#include <thread>

#include "board.h"
#include "board_state.h"
#include "options.h"
#include "orvi/log_line.h"

int main(int argc, char** argv) {
    // Every client has a reader thread of its own, and a board serves up to
    // 256 clients: default stacks would take 2 GiB of a 32-bit host.
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 512 << 10);
    pthread_setattr_default_np(&small);
    pthread_attr_destroy(&small);

    qord_sim::Options options;
    const int status = qord_sim::parse_options(argc, argv, options);
    if (status >= 0) return status;

    std::unique_ptr<qord_sim::BoardState> state;
    try {
        state.reset(new qord_sim::BoardState(options.state_path));
    } catch (const std::exception& e) {
        orvi::log_error(std::string("qord-sim: ") + e.what());
        return 2;
    }

    // A reader of our output that goes away must not take the board down.
    signal(SIGPIPE, SIG_IGN);
    // Signals are taken by one thread with sigwait; every other thread,
    // started below, inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    qord_sim::Board board(options, *state);
    try {
        board.start();
    } catch (const std::exception& e) {
        orvi::log_error("qord-sim: cannot listen on " + options.listen_host + ":" +
                        options.listen_port + ": " + e.what());
        return 1;
    }
    std::thread waiter([&] {
        int sig = 0;
        sigwait(&signals, &sig);
        board.stop();
    });
    board.run();
    waiter.join();
    orvi::write_line(1, "qord-sim stopped");
    return 0;
}
