// Routing by turns: a peer's messages are routed one at a time and in order,
// where they are read or, behind a handler that may block, on a worker; and
// the engine waits for a route under way before it goes.
#include <gtest/gtest.h>

#include <chrono>

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "orvi/protocol.h"
#include "testing/pipe_transport.h"

namespace orvi {
namespace {

// What a handler saw: each body with the thread that routed it, and whether
// two ever overlapped.
struct Journal {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::thread::id>> seen;
    bool overlap = false;
    int inside = 0;
    std::promise<void> openMayFinish;
};
Journal* g_journal = nullptr;

// Holds its opening message until the test lets it go; answers every
// message with its body, and finishes on "end".
struct Tracked : ProxyCommandHandler {
    using ProxyCommandHandler::ProxyCommandHandler;
    void process_message(const char* data, unsigned int size) override {
        Journal& j = *g_journal;
        const std::string body(data, size);
        {
            std::lock_guard<std::mutex> lock(j.mutex);
            j.overlap |= ++j.inside > 1;
            j.seen.emplace_back(body, std::this_thread::get_id());
        }
        if (body == "open") j.openMayFinish.get_future().wait();
        {
            std::lock_guard<std::mutex> lock(j.mutex);
            --j.inside;
        }
        send_message(data, size);
        if (body == "end") set_done();
    }
};

// Sends several messages of one command and counts the answers.
struct Stream : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<std::string> answers;
    void process_message(const char* data, unsigned int size) override {
        std::lock_guard<std::mutex> lock(mutex);
        answers.emplace_back(data, size);
        cond.notify_all();
    }
    void send(const std::string& body) {
        send_message(body.data(), static_cast<unsigned int>(body.size()));
    }
    bool wait_answers(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10), [&] { return answers.size() >= n; });
    }
};

// A board's engine and a client's, as qord-sim and qor::Client set them
// up, joined by an in-process pipe whose delivery threads stand for the
// connections' reader threads.
struct Pair {
    Protocol server{1};
    Protocol client{1};
    std::shared_ptr<testing::PipeEnd> board_end;
    Pair() {
        server.add_command("tracked", std::make_shared<ProxyFactoryTpl<Tracked>>());
        auto ends = testing::make_pipe();
        board_end = ends.first;
        server.add_transport(ends.first);
        client.add_transport(ends.second);
    }
};

TEST(Routing, QueuedBehindAWorkerThenRoutedWhereRead) {
    Journal journal;
    g_journal = &journal;
    Pair engines;
    auto stream = engines.client.create_command_proxy<Stream>("tracked");
    // The opening message goes to a worker and stays there; what follows
    // meanwhile must queue behind it, not overtake it on the reader.
    stream->send("open");
    stream->send("a");
    stream->send("b");
    engines.board_end->wait_delivered();  // a and b came while open is held
    journal.openMayFinish.set_value();
    ASSERT_TRUE(stream->wait_answers(3));
    std::thread::id worker;
    {
        std::lock_guard<std::mutex> lock(journal.mutex);
        ASSERT_EQ(journal.seen.size(), 3u);
        worker = journal.seen[0].second;
        EXPECT_EQ(journal.seen[1].second, worker);
        EXPECT_EQ(journal.seen[2].second, worker);
    }
    // Once the queue has drained, messages are routed where they are read
    // again. The worker gives the turn back just after its last answer has
    // gone out, so the first ones after it may still find it taken.
    std::thread::id last = worker;
    for (size_t n = 4; last == worker && n < 100; ++n) {
        stream->send("again");
        ASSERT_TRUE(stream->wait_answers(n));
        std::lock_guard<std::mutex> lock(journal.mutex);
        last = journal.seen.back().second;
    }
    EXPECT_NE(last, worker);
    EXPECT_NE(last, std::this_thread::get_id());
    stream->send("end");
    stream->wait();
    std::lock_guard<std::mutex> lock(journal.mutex);
    EXPECT_FALSE(journal.overlap);
}

TEST(Routing, TheEngineWaitsForARouteUnderWay) {
    Journal journal;
    g_journal = &journal;
    std::unique_ptr<Pair> engines(new Pair);
    auto stream = engines->client.create_command_proxy<Stream>("tracked");
    stream->send("first");
    ASSERT_TRUE(stream->wait_answers(1));
    // Routed where it is read (a follow-on), and held there.
    stream->send("open");
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        std::lock_guard<std::mutex> lock(journal.mutex);
        if (journal.seen.size() == 2) break;
    }
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        journal.openMayFinish.set_value();
    });
    const auto start = std::chrono::steady_clock::now();
    engines.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
    release.join();
    EXPECT_EQ(journal.inside, 0);
}

}  // namespace
}  // namespace orvi
