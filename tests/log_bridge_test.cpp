// The log bridge reads "cstyle-api" once per process, so every check that
// needs a particular environment runs in a fresh copy of this test binary.

#include <unistd.h>

#include <array>
#include <cstdarg>
#include <set>
#include <tuple>

#include <gtest/gtest-spi.h>

#include "ffmpeg_error.h"
#include "log.h"
#include "support.h"
#include "utils/wave_files.h"
#include "utils/zo_text.h"

namespace {

// Runs `checks` in a fresh process of this binary (a "threadsafe" death test
// re-executes it), with "cstyle-api" set to `api` (null: unset) before the
// bridge first reads it. A death-test child reports no failures itself: they
// are collected and written to standard error, which the parent shows when
// the child exits non-zero.
template <typename Checks>
void in_fresh_process(const char* api, Checks checks) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            testing::TestPartResultArray failures;
            {
                testing::ScopedFakeTestPartResultReporter collect(&failures);
                api ? setenv("cstyle-api", api, 1) : unsetenv("cstyle-api");
                checks();
            }
            for (int i = 0; i < failures.size(); ++i) std::fprintf(stderr, "%s\n", failures.GetTestPartResult(i).message());
            std::exit(failures.size() == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- a host table that records what the library hands it

struct LogCall { int level; std::string tag, file, format, text; int line; };
std::vector<LogCall> g_logs;
std::vector<std::string> g_scope_events;
int g_scope_token = 0;

int host_write_log(int level, const char* tag, const char* file, int line, const char* format, va_list args) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    g_logs.push_back({level, tag, file, format, text, line});
    return 42;
}

void* host_open_scope(const char* name, const char* file, int line, const char* note) {
    g_scope_events.push_back(std::string("open ") + name + " " + file + ":" + std::to_string(line) +
                             " " + (note ? note : "(null)"));
    return &g_scope_token;
}

void host_close_scope(void* scope) { g_scope_events.push_back(scope == &g_scope_token ? "close token" : "close other"); }

int host_get_int(const char* key, int default_value) { return std::string(key) == "dec.max_vf" ? 9 : default_value; }

// Positions the library must never call.
void host_forbidden() { std::abort(); }

void host_table_receives_every_call() {
    static std::array<NoBridge::HostFn, 16> table;
    table.fill(host_forbidden);
    table[NoBridge::kWriteLog] = reinterpret_cast<NoBridge::HostFn>(host_write_log);
    table[NoBridge::kOpenScope] = reinterpret_cast<NoBridge::HostFn>(host_open_scope);
    table[NoBridge::kCloseScope] = reinterpret_cast<NoBridge::HostFn>(host_close_scope);
    table[NoBridge::kGetInt] = reinterpret_cast<NoBridge::HostFn>(host_get_int);
    setenv("cstyle-api", zo::str_format("%p", table.data()).c_str(), 1);  // before the bridge's first read

    // A library source reports a failure: the file is relative to the project root.
    ff::WaveFiles files;
    const std::string missing = std::string(CLIPDEC_TEST_TMP) + "/no-such-dir/x.pcm";
    EXPECT_FALSE(files.open({missing}, "rb"));
    ASSERT_EQ(g_logs.size(), 1u);
    EXPECT_GT(g_logs[0].line, 0);
    EXPECT_EQ(std::make_tuple(g_logs[0].level, g_logs[0].tag, g_logs[0].file, g_logs[0].format, g_logs[0].text),
              std::make_tuple(2, "no-bg", "src/utils/wave_files.cpp", "\"[wave files] can't open (mode=%s): %s\"\n",
                              "\"[wave files] can't open (mode=rb): " + missing + "\"\n"));

    // Escapes reach the host as their source characters; the result comes back unchanged.
    EXPECT_EQ(NoBridge::instance()->write_log(5, "dec_3", __FILE__, __LINE__, "%s", "x"), 42);
    CLIPDEC_LOG(ff::kLogDebug, "dec_3", "tab\there %d", 7);
    ASSERT_EQ(g_logs.size(), 3u);
    EXPECT_EQ(std::make_tuple(g_logs[2].tag, g_logs[2].file, g_logs[2].format, g_logs[2].text),
              std::make_tuple("dec_3", "tests/log_bridge_test.cpp", "\"tab\\there %d\"\n", "\"tab\\there 7\"\n"));

    // A scope hands over its name, file, line and note, and closes with the host's own token.
    const std::string opened = "open open_filter tests/log_bridge_test.cpp:" + std::to_string(__LINE__ + 2) + " (null)";
    {
        CLIPDEC_SCOPE("open_filter", nullptr);
        NoBridge::TCell cell("remove_worker", "src/scheduler.cpp", 12, "del wk");
    }
    EXPECT_EQ(g_scope_events, std::vector<std::string>({opened, "open remove_worker src/scheduler.cpp:12 del wk",
                                                         "close token", "close token"}));

    EXPECT_TRUE(NoBridge::instance()->get_int_setting("dec.max_vf", 4) == 9 &&
                NoBridge::instance()->get_int_setting("dec.max_af", 20) == 20);
    // The variable is read once: a table published later is not seen.
    static std::array<NoBridge::HostFn, 16> other;
    other.fill(host_forbidden);
    setenv("cstyle-api", zo::str_format("%p", other.data()).c_str(), 1);
    CLIPDEC_LOG(ff::kLogWarning, ff::kTagDefault, "still the first table");
    EXPECT_EQ(g_logs.size(), 4u);
}

// Without a table, or with garbage for one: the quoted message on its own
// line of standard output, and nothing else to call.
void without_table_messages_go_to_stdout() {
    EXPECT_FALSE(NoBridge::instance()->has_host_table());
    const std::string out = testsupport::stdout_of([] {
        CLIPDEC_LOG(ff::kLogError, ff::kTagDefault, "failed to open: %s, %s", "a.mp4", "No such file or directory");
    });
    EXPECT_EQ(out, "\"failed to open: a.mp4, No such file or directory\"\n");
    { CLIPDEC_SCOPE("add_worker", nullptr); }  // nothing to call, nothing to crash
    EXPECT_EQ(NoBridge::instance()->get_int_setting("dec.max_af", 20), 20);
}

}  // namespace

TEST(LogBridgeDeathTest, HostTableOrQuotedMessagesOnStdout) {
    in_fresh_process(nullptr, host_table_receives_every_call);
    in_fresh_process(nullptr, without_table_messages_go_to_stdout);
    in_fresh_process("not-an-address", without_table_messages_go_to_stdout);
}

TEST(FfmpegError, RingOfTenSlotsHoldsFfmpegText) {
    const char* first = ff::ffmpeg_error(AVERROR(ENOENT));
    std::set<const char*> slots{first};
    for (int i = 1; i < 10; ++i) slots.insert(ff::ffmpeg_error(AVERROR_EOF));
    // Ten slots, each with FFmpeg's text for its code; the first text intact
    // until ten further calls, the eleventh reusing its slot.
    EXPECT_EQ(slots.size(), 10u);
    EXPECT_STREQ(first, "No such file or directory");
    EXPECT_EQ(ff::ffmpeg_error(AVERROR_INVALIDDATA), first);
    EXPECT_STREQ(first, "Invalid data found when processing input");

    // Another thread formats into a ring of its own, so no text is overwritten
    // while its message is being written, whatever other threads log meanwhile.
    std::set<const char*> other;
    std::thread([&other] {
        for (int i = 0; i < 10; ++i) other.insert(ff::ffmpeg_error(AVERROR(EINVAL)));
    }).join();
    for (const char* p : other) EXPECT_EQ(slots.count(p), 0u) << "shared with the main thread";
}
