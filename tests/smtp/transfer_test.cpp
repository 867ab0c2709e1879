// The staged message leaves in large writes, yet the trace, the time-out
// clock and the results are those of the transfer loop that reads and sends
// 1028 bytes at a time: compared here with that loop, written out with the
// exported building blocks.
#include "dialogue.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using kemail_test::Script;
using kemail_test::ScriptServer;
using namespace smtp_test;

constexpr size_t kChunk = 1028;

// A message whose bytes differ from chunk to chunk, so that a record with
// the wrong slice shows.
std::string numbered_message(size_t size) {
    std::string message;
    message.reserve(size + 80);
    for (size_t line = 0; message.size() < size; ++line)
        message += "line " + std::to_string(line) + " of the staged message, with some text\r\n";
    message.resize(size);
    return message;
}

// The transfer as the loop of 1028-byte reads does it: restart the clock,
// send the chunk, stop at the first failure.
int chunk_by_chunk(int sock, int fd, unsigned int* err) {
    if (lseek(fd, 0, SEEK_SET) < 0) return -32;
    SMTP_SetTimeOut(g_stMailTimeout.ulDataBlock);
    char chunk[kChunk];
    for (;;) {
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0) return -32;
        if (got == 0) return 0;
        SMTP_SetStartTime();
        const int result = SMTP_send(sock, chunk, static_cast<int>(got), err);
        if (result != 0) return result;
    }
}

// The records of a transfer without the entry and end records that only
// SMTP_sendData writes.
std::vector<TraceEvent> transfer_records() {
    std::vector<TraceEvent> kept;
    for (TraceEvent& event : trace_events()) {
        if (event.code == "smtp0500" || event.code == "smtp0506" || event.code == "smtp05FF")
            continue;
        kept.push_back(std::move(event));
    }
    return kept;
}

struct TransferRun {
    int result = 0;
    unsigned int err = 0;
    std::string received;
    std::vector<TraceEvent> records;
    std::string reply;  // what SMTP_GetSmtpSvResponce hands out after it
};

template <typename Transfer>
TransferRun run_transfer(const std::string& message, Transfer transfer) {
    StagedFile file(message);
    ScriptServer server(Script().drain());
    Client client(server);
    SMTP_SetStartTime();
    trace_clear();
    TransferRun run;
    run.err = 777;
    run.result = transfer(client.sock, file.fd, &run.err);
    run.records = transfer_records();
    run.reply = last_reply();
    client.close_now();
    EXPECT_TRUE(server.wait_done());
    run.received = server.received();
    return run;
}

void expect_same_records(const std::vector<TraceEvent>& got, const std::vector<TraceEvent>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].code, want[i].code) << "record " << i;
        EXPECT_EQ(got[i].level, want[i].level) << "record " << i;
        EXPECT_TRUE(got[i].data == want[i].data) << "record " << i << " (" << got[i].code << ")";
    }
}

class Transfer : public ::testing::Test {
protected:
    void SetUp() override {
        const SmtpTimeOut values = {11, 12, 13, 14, 15, 16};
        SMTP_SetTimeOutInfo(&values);
    }
};

TEST_F(Transfer, RecordsBytesAndReplyBufferAreThoseOfTheChunkLoop) {
    // Several transfer blocks, and a last chunk shorter than the reply text
    // handed out, so that what the chunk before it left there shows.
    for (const size_t size : {size_t{0}, size_t{1}, kChunk, 255 * kChunk, 255 * kChunk + 100,
                              3 * 255 * kChunk + 7 * kChunk + 100, size_t{1200000}}) {
        SCOPED_TRACE("message of " + std::to_string(size) + " bytes");
        const std::string message = numbered_message(size);
        const TransferRun want = run_transfer(message, chunk_by_chunk);
        const TransferRun got = run_transfer(message, SMTP_sendData);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.result, want.result);
        EXPECT_EQ(got.err, want.err);
        EXPECT_TRUE(got.received == message);
        EXPECT_TRUE(got.received == want.received);
        expect_same_records(got.records, want.records);
        if (!message.empty()) {
            // The last chunk read, over what the chunk before it left.
            const size_t last = (size - 1) / kChunk * kChunk;
            std::string left = message.substr(last, kChunk);
            if (last > 0) left += message.substr(last - kChunk + left.size(), kChunk);
            const size_t known = std::min<size_t>(left.size(), 255);
            EXPECT_EQ(got.reply.substr(0, known), left.substr(0, known));
        }
        size_t chunks = 0;
        for (const TraceEvent& event : got.records) {
            if (event.code != "smtp0e00") continue;
            EXPECT_TRUE(event.data == message.substr(chunks * kChunk, kChunk)) << chunks;
            EXPECT_EQ(event.level, 0u);
            ++chunks;
        }
        EXPECT_EQ(chunks, (size + kChunk - 1) / kChunk);
    }
}

TEST_F(Transfer, EveryChunkRestartsTheDataPhaseClock) {
    const std::string message = numbered_message(300 * kChunk);
    const TransferRun got = run_transfer(message, SMTP_sendData);
    ASSERT_EQ(got.result, 0);
    // Each chunk's record follows the restart of its clock.
    size_t restarts = 0;
    for (size_t i = 0; i < got.records.size(); ++i) {
        if (got.records[i].code != "smtp0e00") continue;
        ASSERT_GE(i, 2u);
        EXPECT_EQ(got.records[i - 1].code, "SETSTARTFFFF");
        EXPECT_EQ(got.records[i - 2].code, "SETSTART0000");
        ++restarts;
    }
    EXPECT_EQ(restarts, 300u);
    EXPECT_EQ(g_ulTimeOut, 15u);
}

// A peer that takes part of the message and then resets the connection:
// the chunk that could not go out ends the transfer with -3 and the errno,
// its record the last data record, as the chunk loop has it.
TEST_F(Transfer, AResetMidMessageFailsLikeTheChunkLoop) {
    const std::string message = numbered_message(4 * 1024 * 1024);
    StagedFile file(message);
    ScriptServer server(Script().read_until("line 20000 ").reset());
    Client client(server);
    int buffer = 64 * 1024;
    ASSERT_EQ(setsockopt(client.sock, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer), 0);
    trace_clear();
    unsigned int err = 777;
    const int result = SMTP_sendData(client.sock, file.fd, &err);
    EXPECT_EQ(result, -3);
    EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;
    ASSERT_TRUE(server.wait_done());
    const std::vector<TraceEvent> records = trace_events();
    size_t chunks = 0;
    size_t failed_at = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].code == "smtp0e00") {
            EXPECT_TRUE(records[i].data == message.substr(chunks * kChunk, kChunk)) << chunks;
            ++chunks;
        }
        if (records[i].code == "smtp0e05") failed_at = i;
    }
    ASSERT_GT(failed_at, 0u);
    EXPECT_EQ(word_of(records[failed_at]), err);
    // The failing chunk's record comes before the failure, with at most the
    // time-out checks of its short sends between them, and the transfer
    // records that the chunk was not sent.
    size_t chunk_record = failed_at - 1;
    while (chunk_record > 0 && records[chunk_record].code.rfind("CHKOVER", 0) == 0) --chunk_record;
    EXPECT_EQ(records[chunk_record].code, "smtp0e00");
    ASSERT_LT(failed_at + 1, records.size());
    EXPECT_EQ(records[failed_at + 1].code, "smtp0510");
    EXPECT_EQ(word_of(records[failed_at + 1]), err);
    EXPECT_LT(chunks, message.size() / kChunk);
    // No chunk was traced that the peer could not have been offered.
    EXPECT_GE(chunks * kChunk, server.received().size());
}

// A message of MIME parts whose header blocks and boundary lines fall at
// every kind of place relative to the pieces' ends.
std::string parted_message(unsigned seed, const std::string& boundary) {
    std::mt19937 random(seed);
    std::string message =
        "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"" + boundary + "\"\r\n\r\n";
    for (int part = 0; part < 40; ++part) {
        message += "--" + boundary + "\r\nContent-Type: application/octet-stream\r\n";
        if (random() % 2) message += "Content-Transfer-Encoding: base64\r\n";
        message += "\r\n";
        const int lines = static_cast<int>(random() % 400);
        for (int line = 0; line < lines; ++line)
            message += std::string(1 + random() % 120, static_cast<char>('A' + line % 26)) + "\r\n";
        if (random() % 3 == 0) message += "\r\n";
    }
    return message + "--" + boundary + "--\r\n";
}

// The pieces SMTP_getSendData cuts from the descriptor, to its end.
std::vector<std::string> pieces_of(int fd, int size_kb, const std::string& boundary) {
    std::vector<std::string> pieces;
    std::vector<char> buf(static_cast<size_t>(size_kb) * 1024);
    for (;;) {
        unsigned int err = 0;
        const int n = SMTP_getSendData(fd, buf.data(), size_kb, boundary.c_str(), &err);
        EXPECT_GE(n, 0) << err;
        if (n <= 0) break;
        pieces.emplace_back(buf.data(), static_cast<size_t>(n));
    }
    return pieces;
}

// A file is cut in memory from blocks, a pipe (which cannot take back what
// was read beyond a cut) a byte at a time: the same pieces come out.
TEST(PieceCutter, AFileIsCutWhereAPipeIsCut) {
    const std::string boundary = "----=_Part_kemail_42";
    for (unsigned seed = 1; seed <= 12; ++seed) {
        for (const int size_kb : {2, 3, 10}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", " + std::to_string(size_kb) + " KiB");
            const std::string message = parted_message(seed, boundary);
            StagedFile file(message);
            const std::vector<std::string> from_file = pieces_of(file.fd, size_kb, boundary);

            int fds[2];
            ASSERT_EQ(pipe(fds), 0);
            std::thread writer([&] {
                size_t at = 0;
                while (at < message.size()) {
                    const ssize_t n = write(fds[1], message.data() + at, message.size() - at);
                    if (n <= 0) break;
                    at += static_cast<size_t>(n);
                }
                close(fds[1]);
            });
            const std::vector<std::string> from_pipe = pieces_of(fds[0], size_kb, boundary);
            writer.join();
            close(fds[0]);

            EXPECT_GT(from_file.size(), 1u);
            EXPECT_TRUE(from_file == from_pipe);
            std::string joined;
            for (const std::string& piece : from_file) joined += piece;
            EXPECT_TRUE(joined == message);
        }
    }
}

}  // namespace
