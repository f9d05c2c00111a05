// SPDX-License-Identifier: Apache-2.0
// The board's side of an upgrade: ask for the image chunk by chunk, check
// every size, report a few flashing steps, finish, reboot into the image.
#include <chrono>
#include <fstream>
#include <stdexcept>

#include "board.h"
#include "handlers.h"
#include "orvi/log_line.h"
#include "qor/protobuf/catalogue.h"
#include "qor/protobuf/sysupgrade.pb.h"

namespace qord_sim {

namespace {

namespace pb = qor::protobuf::sysupgrade;

constexpr uint32_t kChunkSize = qor::catalogue::kSysupgradeChunkSize;

// 64-bit FNV-1a, fed chunk by chunk.
class Digest {
  public:
    void add(const char* data, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            m_hash ^= static_cast<unsigned char>(data[i]);
            m_hash *= 0x100000001b3ULL;
        }
    }
    std::string hex() const {
        static const char* const digits = "0123456789abcdef";
        std::string out(16, '0');
        for (int i = 0; i < 16; ++i) out[15 - i] = digits[(m_hash >> (4 * i)) & 0xF];
        return out;
    }

  private:
    uint64_t m_hash = 0xcbf29ce484222325ULL;
};

class UpgradeHandler : public orvi::ProxyCommandHandler {
  public:
    UpgradeHandler(orvi::Protocol& protocol, Board& board)
        : ProxyCommandHandler(protocol), m_board(board) {}

  protected:
    void process_message(const char* data, unsigned int size) override {
        if (!m_started) {
            start(data, size);
        } else {
            chunk(data, size);
        }
    }

  private:
    void send_answer(pb::Answer::Type type, const std::string& log = std::string()) {
        pb::Answer answer;
        answer.set_type(type);
        if (type == pb::Answer::LOG) answer.set_log(log);
        std::string bytes;
        answer.SerializeToString(&bytes);
        send_message(bytes.data(), static_cast<unsigned int>(bytes.size()));
    }

    void start(const char* data, unsigned int size) {
        pb::Request request;
        if (!request.ParseFromArray(data, static_cast<int>(size))) {
            throw std::runtime_error("malformed sysupgrade request");
        }
        m_started = true;
        m_size = request.fw_size();
        if (m_size == 0) throw std::runtime_error("empty image refused");
        orvi::write_line(1, "qord-sim upgrade: " + std::to_string(m_size) +
                                " bytes, keep_config=" + (request.keep_config() ? "1" : "0") +
                                ", not_save_config=" + (request.not_save_config() ? "1" : "0"));
        if (!m_board.options().image_out.empty()) {
            m_out.open(m_board.options().image_out, std::ios::binary | std::ios::trunc);
        }
        send_answer(pb::Answer::LOG, "Receiving image of " + std::to_string(m_size) + " bytes\n");
        send_answer(pb::Answer::NEXT);
    }

    void chunk(const char* data, unsigned int size) {
        if (++m_chunks == 1) m_firstChunk = std::chrono::steady_clock::now();
        if (m_chunks == m_board.options().refuse_chunk) {
            throw std::runtime_error("image refused at chunk " + std::to_string(m_chunks));
        }
        const uint32_t expected = std::min(kChunkSize, m_size - m_received);
        if (size != expected) {
            throw std::runtime_error("chunk " + std::to_string(m_chunks) + " has " +
                                     std::to_string(size) + " bytes, expected " +
                                     std::to_string(expected));
        }
        m_received += size;
        const bool more = m_received < m_size;
        // Ask for the next chunk first: it travels while this one is digested.
        if (more) send_answer(pb::Answer::NEXT);
        m_digest.add(data, size);
        if (m_out.is_open()) m_out.write(data, size);
        if (m_head.size() < 256) m_head.append(data, std::min<size_t>(size, 256 - m_head.size()));
        if (more) return;
        if (m_out.is_open()) m_out.close();
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::steady_clock::now() - m_firstChunk)
                                .count();
        orvi::write_line(1, "qord-sim upgrade: received " + std::to_string(m_received) +
                                " bytes in " + std::to_string(micros) + " us");
        m_board.state().install_firmware(image_version(), m_digest.hex());
        if (m_board.options().drop_after_last_chunk) {
            m_board.drop_client(get_transport_client_id());
        } else {
            send_answer(pb::Answer::LOG, "\nVerifying image");
            send_answer(pb::Answer::LOG, "\nWriting image to flash");
            set_done();
        }
        m_board.request_reboot();
    }

    std::string image_version() const {
        const std::string tag = "QORFW ";
        if (m_head.compare(0, tag.size(), tag) == 0) {
            const size_t end = m_head.find('\n');
            if (end != std::string::npos) return m_head.substr(tag.size(), end - tag.size());
        }
        return "image-" + m_digest.hex().substr(0, 8);
    }

    Board& m_board;
    bool m_started = false;
    uint32_t m_size = 0;
    uint32_t m_received = 0;
    unsigned long m_chunks = 0;
    std::chrono::steady_clock::time_point m_firstChunk;
    Digest m_digest;
    std::string m_head;  // first bytes, for a version line
    std::ofstream m_out;
};

}  // namespace

std::shared_ptr<orvi::Proxy> make_upgrade_handler(orvi::Protocol& protocol, Board& board) {
    return std::make_shared<UpgradeHandler>(protocol, board);
}

}  // namespace qord_sim
