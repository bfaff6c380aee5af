// Tests of the proxy-mode frame format: exact frame bytes, the decoder's scan rules, the round
// trip through the shared decode records, replay into a real agent, and the fuzz corpora.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "codec/codec_fixture.h"
#include "codec/qvlb_encode.h"
#include "foundation/qvlb_fault.h"
#include "foundation/qvlb_mt_log.h"

namespace {

std::string frame(int len, const char* buf) {
    return len > 0 ? std::string(buf, static_cast<size_t>(len)) : std::string();
}
std::string entryFrame(long fpi, const char* name, const char* q = nullptr, const char* p = nullptr) {
    char b[4096];
    return frame(buildMethodEntryFrame(b, sizeof(b), 7, fpi, 11, name, q, p, 99), b);
}
std::string exitFrame(long fpi, const char* name, int status = 200, const char* backend = nullptr) {
    char b[4096];
    return frame(buildMethodExitFrame(b, sizeof(b), 7, status, 1, 0, 11, 5, fpi, 3, name, backend), b);
}
std::string startFrame(long fpi, const char* url, const char* corr = nullptr) {
    char b[4096];
    return frame(
        buildTransactionStartFrame(b, sizeof(b), 4, fpi, nullptr, url, nullptr, nullptr, nullptr, corr, 0),
        b);
}
std::string endFrame(long fpi, int status = 200) {
    char b[64];
    return frame(buildTransactionEndFrame(b, sizeof(b), status, fpi), b);
}
std::string resetFrame(long fpi) {
    char b[64];
    return frame(buildTransactionResetFrame(b, sizeof(b), fpi), b);
}
// The bytes of v as a frame carries it (native order).
template <class T>
std::string raw(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof(T));
}
template <class T>
T at(const std::string& f, size_t off) {
    T v;
    memcpy(&v, f.data() + off, sizeof(T));
    return v;
}
// f with the int at off replaced by v.
std::string poke(std::string f, size_t off, int v) {
    memcpy(&f[off], &v, 4);
    return f;
}
void decode(std::string bytes, int appIndex = 0) {
    decodeMessage(bytes.data(), static_cast<int>(bytes.size()), appIndex);
}

// A bare instance record and a level-4 trace log in a temporary directory: enough for the scan
// and the shared records, with no flowpath engine behind them (no test run: startFP does nothing).
class Codec : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&app_, 0, sizeof(app_));
        app_.QVSys.controlTraceLevel = 4;
        qvApplication = &app_;
        trace_log_key = qvlb_init_mt_trace_log_ex(dir_.path().c_str(), "codec", 4, 10);
    }
    void TearDown() override {
        qvlb_decode_reset_for_test();
        qvlb_encode_reset_for_test();
        qvlb_fault_reset();
        destroy_hashmap(app_.fpi_tls_map);
        qvlb_trace_log_reset_for_test();
        qvApplication = nullptr;
    }
    std::string log() const { return dir_.read("codec_0"); }
    void bindWithMap() {
        app_.fpi_tls_map = create_hashmap(nullptr);
        ASSERT_EQ(qvlbSetDecodeInstance(0, &app_), 0);
    }

    TempAgentHome dir_;  // the trace log's directory
    QVProxyInstance_t app_;
};

}  // namespace

TEST_F(Codec, FrameBytesAndSizes) {
    // '^', header {header_len 12, total_len, type}, '|', fixed record with zeroed padding, string
    // bodies, '\n', then one zero filler byte per string present.
    EXPECT_EQ(endFrame(0x0102030405060708L, 404),
              "^" + raw(12) + raw(31) + raw(3) + "|" + raw(404) + raw(0) + raw(0x0102030405060708L) + "\n");
    EXPECT_EQ(resetFrame(42), "^" + raw(12) + raw(23) + raw(4) + "|" + raw(42L) + "\n");
    const std::string entry = "|" + raw(7) + raw(0) + raw(5L) + raw(11L) + raw(99LL);
    EXPECT_EQ(entryFrame(5, nullptr),
              "^" + raw(12) + raw(63) + raw(0) + entry + raw(0) + raw(0) + raw(0) + raw(0) + "\n");
    EXPECT_EQ(entryFrame(5, "abc"),
              "^" + raw(12) + raw(67) + raw(0) + entry + raw(4) + raw(0) + raw(0) + raw(0) + "abc\n" + '\0');
    // An empty string is present (L = 1, no body, one filler byte); a null one is not.
    EXPECT_EQ(entryFrame(5, "", nullptr, ""), "^" + raw(12) + raw(65) + raw(0) + entry + raw(1) + raw(0) +
                                                  raw(1) + raw(0) + "\n" + std::string(2, '\0'));
}

TEST_F(Codec, OversizedFramesAreRefusedAndCounted) {
    // total_len = 12 + 48 + 3 + (n + 1): n = 131008 makes exactly 131072 bytes.
    std::string name(131008, 'm');
    std::vector<char> big(QV_MSG_MAX_FRAME + 16);
    EXPECT_EQ(buildMethodEntryFrame(big.data(), big.size(), 1, 1, 1, name.c_str(), nullptr, nullptr, 0),
              QV_MSG_MAX_FRAME);
    EXPECT_EQ(buildMethodEntryFrame(big.data(), 1000, 1, 1, 1, name.c_str(), nullptr, nullptr, 0),
              QV_FRAME_NO_ROOM);
    EXPECT_EQ(buildTransactionEndFrame(nullptr, 64, 1, 1), QV_FRAME_NO_ROOM);
    name += 'm';
    EXPECT_EQ(buildMethodEntryFrame(big.data(), big.size(), 1, 1, 1, name.c_str(), nullptr, nullptr, 0),
              QV_FRAME_TOO_LARGE);

    // Without a data connection a frame that fits is built (through the large buffer) and dropped
    // silently; one that does not fit is counted and logged.
    MethodEntryEncode(1, 1, 1, std::string(5000, 'a').c_str(), nullptr, nullptr, 0);
    EXPECT_EQ(qvlbOversizedFrameCount(), 0);
    MethodEntryEncode(1, 1, 1, name.c_str(), nullptr, nullptr, 0);
    transactionStartEncode(0, 1, nullptr, name.c_str(), nullptr, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(qvlbOversizedFrameCount(), 2);
}

TEST_F(Codec, ScanRules) {
    // Frames back to back, the last one cut short.
    decode(endFrame(111) + endFrame(222) + endFrame(333).substr(0, 30));
    EXPECT_EQ(transactionEnd.flowpathinstance, 222);
    EXPECT_EQ(occurrences(log(), "found ^ "), 3);
    // Nothing is carried over: the rest of the cut frame alone is not a frame.
    decode(endFrame(333).substr(30));
    EXPECT_EQ(transactionEnd.flowpathinstance, 222);

    // A mark among the last sixteen bytes is an ordinary byte.
    std::string tail = endFrame(777).substr(0, 16);
    decode("xyz" + tail);
    EXPECT_EQ(occurrences(log(), "found ^ "), 3);
    decode(tail + "x");  // 17 bytes: now the mark is examined (and its frame is incomplete)
    EXPECT_EQ(occurrences(log(), "found ^ "), 4);

    // A header made of the next frame's bytes claims too much: the scan jumps two bytes, past
    // the real mark, which is never seen.
    decode("^" + endFrame(0x0a0a0a));
    EXPECT_EQ(occurrences(log(), "found ^ "), 5);
    EXPECT_EQ(transactionEnd.flowpathinstance, 222);

    // One byte between: the jump lands on the real mark, counted one byte too many (32 of 31
    // left; the 32 above gave the first such line), yet the frame fits.
    decode("^x" + endFrame(0x0b0b0b));
    EXPECT_EQ(occurrences(log(), "found ^ , bytes read = 32"), 2);
    EXPECT_EQ(transactionEnd.flowpathinstance, 0x0b0b0b);
}

TEST_F(Codec, MalformedFramesAreDroppedAndScanningGoesOn) {
    // Unknown type (logged, skipped); a name length running past the frame and a negative one;
    // total_len not above header_len, and a header_len stretching the record past the frame:
    // none may read beyond the bytes given, and the next frame is still handled.
    const std::string hugeHeader = poke(poke(endFrame(6), 1, -100000), 5, 20).substr(0, 20);
    decode(poke(endFrame(5), 9, 9) + poke(entryFrame(5, "abc"), 14 + 32, 1000) +
           poke(entryFrame(5, "abc"), 14 + 40, -1) + poke(endFrame(6), 5, 0) + hugeHeader + "pad" +
           endFrame(8));
    EXPECT_EQ(occurrences(log(), "Unknown message type ;)"), 1);
    EXPECT_EQ(transactionEnd.flowpathinstance, 8);
    EXPECT_EQ(MethodEntry.methodName, nullptr);

    std::string ok = entryFrame(5, "abc");
    EXPECT_EQ(readDataMessage(ok.data() + 14, 47, QV_MSG_METHOD_ENTRY, 0), -1);  // len < S
    EXPECT_EQ(readDataMessage(nullptr, 100, QV_MSG_METHOD_ENTRY, 0), -1);
    decodeMessage(nullptr, 10, 0);
    decodeMessage(ok.data(), -1, 0);
    decodeMessage(ok.data(), static_cast<int>(ok.size()), 999);  // unbound index
    EXPECT_EQ(qvlbSetDecodeInstance(QV_DECODE_MAX_INSTANCES, &app_), -1);
}

TEST_F(Codec, FailedStringAllocationDropsTheWholeFrame) {
    bindWithMap();
    const std::string f = entryFrame(5, "name", "query", "param");
    qvlb_fault_arm(QV_FAULT_MALLOC, 1, 1);  // the second string
    EXPECT_EQ(decodeFrameRecord(f.data() + 14, static_cast<long long>(f.size()) - 14, QV_MSG_METHOD_ENTRY),
              -1);
    EXPECT_EQ(MethodEntry.methodName, nullptr);
    EXPECT_EQ(MethodEntry.query_string, nullptr);
    qvlb_fault_arm(QV_FAULT_MALLOC, 0, 1);
    decode(f);
    EXPECT_EQ(occurrences(log(), "Message Type 0, Method Entry processed."), 0);
    decode(f);
    EXPECT_EQ(occurrences(log(), "Message Type 0, Method Entry processed."), 1);
}

// Every frame the builders make decodes into the same values: fixed fields and strings, absent
// strings as null, empty ones as "". Frames are also scanned back to back with noise between.
TEST_F(Codec, RoundTripOfRandomFrames) {
    bindWithMap();
    std::mt19937_64 rng(20240611);
    auto randStr = [&](std::string& store) -> const char* {
        const int kind = static_cast<int>(rng() % 6);  // null, empty, short or long
        store.resize(kind < 2 ? 0 : rng() % (kind == 5 ? 3000 : 40));
        for (char& c : store) c = static_cast<char>(1 + rng() % 255);  // any byte but NUL, '^' too
        return kind == 0 ? nullptr : store.c_str();
    };
    auto same = [](const char* sent, const char* got) {
        return sent == nullptr ? got == nullptr : (got != nullptr && strcmp(sent, got) == 0);
    };
    std::vector<char> buf(QV_MSG_MAX_FRAME);
    std::string stream;
    int perType[5] = {0, 0, 0, 0, 0};
    for (int i = 0; i < 1500; ++i) {
        std::string s[6];
        const char* p[6];
        for (int k = 0; k < 6; ++k) p[k] = randStr(s[k]);
        const int type = static_cast<int>(rng() % 5);
        const long fpi = static_cast<long>(rng());
        const int a = static_cast<int>(rng()), b = static_cast<int>(rng());
        const long c = static_cast<long>(rng()), d = static_cast<long>(rng());
        const long long e = static_cast<long long>(rng());
        char* o = buf.data();
        const size_t n = buf.size();
        const int len =
            type == 0   ? buildMethodEntryFrame(o, n, a, fpi, c, p[0], p[1], p[2], e)
            : type == 1 ? buildMethodExitFrame(o, n, a, b, a ^ b, b & 1, c, d, fpi, c ^ d, p[0], p[1])
            : type == 2 ? buildTransactionStartFrame(o, n, a, fpi, p[0], p[1], p[2], p[3], p[4], p[5], e)
            : type == 3 ? buildTransactionEndFrame(o, n, a, fpi)
                        : buildTransactionResetFrame(o, n, fpi);
        ASSERT_GT(len, 0);
        size_t sumL = 0, k = 0;
        const int nStr = type == 0 ? 3 : type == 1 ? 2 : type == 2 ? 6 : 0;
        for (int j = 0; j < nStr; ++j)
            if (p[j] != nullptr) sumL += strlen(p[j]) + 1, ++k;
        const size_t S = type == 0 || type == 2 ? 48 : type == 1 ? 56 : type == 3 ? 16 : 8;
        ASSERT_EQ(static_cast<size_t>(len), 12 + S + 3 + sumL);
        ASSERT_EQ(buf[static_cast<size_t>(len) - 1 - k], '\n');
        ASSERT_EQ(decodeFrameRecord(buf.data() + 14, len - 14, type), 0);
        const MethodEntryVar_t& me = MethodEntry.var;
        const MethodExitVar_t& mx = MethodExit.var;
        const transactionStart_t& ts = transactionStart;
        if (type == 0)
            EXPECT_TRUE(std::tuple(me.mid, me.flowpathinstance, me.threadId, me.startTime) ==
                            std::tuple(a, fpi, c, e) &&
                        same(p[0], MethodEntry.methodName) && same(p[1], MethodEntry.query_string) &&
                        same(p[2], MethodEntry.urlParameter));
        else if (type == 1)
            EXPECT_TRUE(std::tuple(mx.mid, mx.statusCode, mx.eventType, mx.isCallout, mx.threadId,
                                   mx.duration, mx.flowpathinstance,
                                   mx.cpuTime) == std::tuple(a, b, a ^ b, b & 1, c, d, fpi, c ^ d) &&
                        same(p[0], MethodExit.methodName) && same(p[1], MethodExit.backend_header));
        else if (type == 2)
            EXPECT_TRUE(std::tuple(ts.var.qTimeMS, ts.var.flowpathinstance, ts.var.startTimeFP) ==
                            std::tuple(long{a}, fpi, e) &&
                        same(p[0], ts.fp_header) && same(p[1], ts.url) && same(p[2], ts.btHeaderValue) &&
                        same(p[3], ts.qvCookieSet) && same(p[4], ts.wbCookieSet) &&
                        same(p[5], ts.correlationHeader));
        else
            EXPECT_EQ(type == 3 ? transactionEnd.flowpathinstance : transactionReset.flowpathinstance, fpi);
        EXPECT_EQ(type == 3 ? transactionEnd.statuscode : a, a);
        freeFrameStrings(type);
        if (i < 200) {
            // Noise without marks between frames never hides one.
            stream.append(static_cast<size_t>(rng() % 4), 'n');
            stream.append(buf.data(), static_cast<size_t>(len));
            ++perType[type];
        }
    }
    // No test run here: Start frames call startFP, which declines; the rest are not found.
    const std::string before = log();
    decode(stream);
    const std::string after = log().substr(before.size());
    const char* done[] = {"0, Method Entry", "1, Method Exit", "2, Transaction Start", "3, Transaction End",
                          "4, Transaction Reset"};
    for (int t = 0; t < 5; ++t)
        EXPECT_EQ(occurrences(after, std::string("Message Type ") + done[t] + " processed."), perType[t])
            << done[t];
}

namespace {

// The decoding agent with instance 0 bound to it.
class DecodeIntoAgent : public DecodingAgentTest {
  protected:
    void SetUp() override {
        DecodingAgentTest::SetUp();
        if (app_ != nullptr) qvlbSetDecodeInstance(0, app_);
    }
    QVPerThreadData_t* lookup(long fpi) {
        char key[9];
        fpiTlsMapKey(fpi, key);
        return static_cast<QVPerThreadData_t*>(search_hashmap(app_->fpi_tls_map, key));
    }
};

}  // namespace

TEST_F(DecodeIntoAgent, EventsReachTheFlowpathWithTheirArguments) {
    const long x = 0x1111111111111111L, y = 0x2222222222222222L;
    decode(startFrame(x, "/shop/cart?item=3", "corr-1") + startFrame(y, "/other"));
    QVPerThreadData_t* tx = lookup(x);
    QVPerThreadData_t* ty = lookup(y);
    ASSERT_TRUE(tx != nullptr && ty != nullptr);
    EXPECT_EQ(tx->flowpathInstance, x);
    EXPECT_STREQ(tx->tlURL, "/shop/cart");
    EXPECT_STREQ(tx->tlURLParameters, "item=3");
    EXPECT_STREQ(tx->tlCorrelationIdHeader, "corr-1");
    EXPECT_EQ(tx->qTimeInMS, 4);

    const long long seqBefore = tx->seqNum;
    decode(entryFrame(x, "M1", "select 1", "p=q") + exitFrame(x, "M1", 500));
    EXPECT_EQ(tx->seqNum, seqBefore + 2);
    EXPECT_STREQ(tx->tlURLParameters, "p=q");
    EXPECT_EQ(tx->agentThreadID, 11);
    EXPECT_EQ(tx->tlStatusCode, 500);
    EXPECT_EQ(ty->seqNum, 1);  // only its pseudo-method

    // An End keeps the map entry; a Reset acts on the last End's transaction (x), whatever
    // instance it names itself.
    const int freeBefore = qv_load(gFreeTLSCnt);
    decode(endFrame(x, 200));
    EXPECT_EQ(tx->setEndFPFlag, 1);
    EXPECT_EQ(lookup(x), tx);
    decode(resetFrame(y));
    EXPECT_EQ(lookup(x), nullptr);
    EXPECT_EQ(lookup(y), ty);
    EXPECT_EQ(qv_load(gFreeTLSCnt), freeBefore + 1);
    // A second Reset finds nothing under x any more.
    decode(resetFrame(y));
    EXPECT_EQ(lookup(y), ty);
    EXPECT_EQ(count_hashmap(app_->fpi_tls_map), 1u);

    // Frames of an unknown transaction change nothing.
    decode(entryFrame(0x3333L, "M2") + endFrame(0x3333L));
    EXPECT_EQ(ty->seqNum, 1);
}

// Replays every input kept from fuzzing (crashes found and fixed, and the seed corpus) through
// the decoder into a live agent, as the fuzz harness does.
TEST_F(DecodeIntoAgent, FuzzCorporaReplay) {
    int files = 0;
    for (const char* sub : {"/fuzz/regressions", "/fuzz/corpus"}) {
        const std::string dir = std::string(QV_SOURCE_DIR) + sub;
        if (!std::filesystem::is_directory(dir)) continue;
        for (const auto& ent : std::filesystem::directory_iterator(dir)) {
            if (!ent.is_regular_file()) continue;
            std::ifstream in(ent.path(), std::ios::binary);
            std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            decode(bytes);
            // Transactions left running are ended as at a test stop, as the harness does.
            dumpFpFromBusyList();
            clear_hashmap(app_->fpi_tls_map);
            ++files;
        }
    }
    EXPECT_GT(files, 0);
}

namespace {
class CodecConcurrency : public Codec {};
}  // namespace

// Frames from several threads at once reach one data connection whole: no frame is torn or
// interleaved with another, and every one decodes.
TEST_F(CodecConcurrency, ConcurrentEncodersNeverInterleaveOnTheWire) {
    LoopbackPeer peer;
    ASSERT_TRUE(peer.start());
    QVProxyInstance_t& app = app_;
    char ip[] = "127.0.0.1";
    app.QVSys.proxyMode = 1;
    app.QVSys.proxyIP = ip;
    app.QVSys.proxyPort = peer.port();
    app.QVSys.dataConnState = 1;
    app.QVSys.dataBuffMaxCount = 4;
    app.QVSys.bciDataBufferMaxSize = 4096;
    ASSERT_EQ(buff_list_init(), 0);
    qv_store(app.Server.testRunRunning, 1);
    qv_store(app.Server.retryForDataConn, 1);
    ASSERT_EQ(check_data_thread(), 0);
    // Frames follow the connection's request line (and its extra newline), so nothing else lands
    // between them.
    ASSERT_TRUE(peer.waitFor(
        [&] {
            const std::string b = peer.bytes(0);
            return b.rfind("qv_data_msg_req:", 0) == 0 && b.size() > 2 &&
                   b.compare(b.size() - 2, 2, "\n\n") == 0;
        },
        20000));

    constexpr int kThreads = 4, kFrames = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string name(static_cast<size_t>(10 + t * 700), static_cast<char>('a' + t));
            for (int i = 0; i < kFrames; ++i) {
                MethodEntryEncode(t, 1000 + t, t, name.c_str(), nullptr, "u", i);
                transactionEndEncode(i, 1000 + t);
            }
        });
    }
    for (auto& th : threads) th.join();
    // Each thread's frames: one entry (name 10 + 700 t bytes) and one end per iteration.
    size_t expected = 0;
    for (int t = 0; t < kThreads; ++t) expected += kFrames * (63 + (10 + 700 * t) + 1 + 2 + 31);
    ASSERT_TRUE(peer.waitFor([&] { return peer.bytes(0).size() >= expected; }, 20000));
    qv_data_dispatcher_reset_for_test();

    // The connection starts with its request line and the new-connection record (no '^').
    const std::string got = peer.bytes(0);
    size_t pos = got.find('^');
    ASSERT_NE(pos, std::string::npos);
    int frames = 0;
    while (pos < got.size()) {
        ASSERT_EQ(got[pos], '^') << "torn frame at byte " << pos;
        const int total = at<int>(got, pos + 5);
        const int type = at<int>(got, pos + 9);
        ASSERT_LE(pos + static_cast<size_t>(total), got.size());
        ASSERT_EQ(decodeFrameRecord(got.data() + pos + 14, total - 14, type), 0);
        if (type == QV_MSG_METHOD_ENTRY) {
            const int t = MethodEntry.var.mid;
            EXPECT_EQ(MethodEntry.var.flowpathinstance, 1000 + t);
            EXPECT_EQ(strlen(MethodEntry.methodName), static_cast<size_t>(10 + t * 700));
        }
        freeFrameStrings(type);
        pos += static_cast<size_t>(total);
        ++frames;
    }
    EXPECT_EQ(frames, kThreads * kFrames * 2);
}

// Two decoder threads share the process-wide records; the decoder serialises them.
TEST_F(CodecConcurrency, ConcurrentDecodersAreSerialised) {
    bindWithMap();
    std::string stream;
    for (int i = 0; i < 50; ++i)
        stream += entryFrame(i, "name", "q", "p") + endFrame(i) + startFrame(i, "/u");
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&stream] {
            for (int r = 0; r < 20; ++r) decode(stream);
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(transactionEnd.flowpathinstance, 49);
    EXPECT_EQ(MethodEntry.methodName, nullptr);
}
