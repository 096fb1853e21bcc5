// Tests of the host's loader and call boundary against the real libtessel.so.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tessel/host.hpp"

namespace {

// The tests run with TESSEL_LIBRARY set by ctest; a direct run of the test
// binary falls back to the library this build produced.
void ensure_library_env() {
    if (!std::getenv("TESSEL_LIBRARY")) setenv("TESSEL_LIBRARY", TESSEL_LIBRARY_FILE, 1);
}

std::string dir_of(const std::string &path) { return path.substr(0, path.rfind('/') + 1); }

}  // namespace

TEST(HostLoader, LibraryPathFromEnvironmentOrBesideTheHost) {
    ensure_library_env();
    const std::string env = std::getenv("TESSEL_LIBRARY");
    EXPECT_EQ(zu::library_path(), env);

    unsetenv("TESSEL_LIBRARY");
    const std::string beside = zu::library_path();
    setenv("TESSEL_LIBRARY", env.c_str(), 1);
    // The build puts libzuhost.so and libtessel.so in one folder.
    EXPECT_EQ(beside, dir_of(TESSEL_LIBRARY_FILE) + "libtessel.so");
}

TEST(HostLoader, LoadsTheLibraryAndResolvesEntryPoints) {
    ensure_library_env();
    ASSERT_NO_THROW(zu::load_library());
    ASSERT_NO_THROW(zu::load_library());  // second call is a no-op
    EXPECT_EQ(zu::find_entry_point("NoSuchEntryPoint"), nullptr);
    std::vector<zu::Value> args;
    try {
        zu::call("NoSuchEntryPoint", args);
        ADD_FAILURE() << "unknown entry point accepted";
    } catch (const zu::Error &e) {
        EXPECT_EQ(e.number(), zu::kErrorMessage);
        EXPECT_EQ(std::string(e.what()), "unknown entry point FnNoSuchEntryPoint");
    }
    EXPECT_EQ(zu::current_function(), "");
}

TEST(HostLoader, CallsTheVersionEntryPoint) {
    ensure_library_env();
    if (!zu::find_entry_point("LgmVersion")) GTEST_SKIP() << "FnLgmVersion not in the library yet";
    std::vector<zu::Value> args;
    zu::Value v = zu::call("LgmVersion", args);
    EXPECT_EQ(v.as_int(), 300);
    EXPECT_EQ(zu::current_function(), "");
}

TEST(HostLoader, ErrorsFromTheLibraryCrossTheCallBoundary) {
    ensure_library_env();
    if (!zu::find_entry_point("LgmWarning")) GTEST_SKIP() << "FnLgmWarning not in the library yet";
    // With messages on, LgmWarning() without arguments raises its error
    // through ZuRunErrorMessage; the call restores the function name and
    // leaves nothing allocated.
    std::vector<zu::Value> on;
    on.push_back(zu::Value::integer(1));
    zu::call("LgmWarning", on);
    const zu::LiveCounts before = zu::live_allocations();
    std::vector<zu::Value> args;
    try {
        zu::call("LgmWarning", args);
        ADD_FAILURE() << "no error raised";
    } catch (const zu::Error &e) {
        EXPECT_EQ(e.number(), zu::kErrorMessage);
        EXPECT_EQ(std::string(e.what()), "LgmWarning(): at least one argument required");
    }
    EXPECT_EQ(zu::current_function(), "");
    EXPECT_EQ(zu::live_allocations().total(), before.total());
}

TEST(HostLoaderDeathTest, UnloadableLibraryRaises) {
    // Needs a fresh process: the library opens once per process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("TESSEL_LIBRARY", "/nonexistent/libtessel.so", 1);
            int code = 1;
            try {
                zu::load_library();
            } catch (const zu::Error &e) {
                const std::string text = e.what();
                code = text.find("/nonexistent/libtessel.so") != std::string::npos ? 0 : 2;
            }
            std::exit(code);
        },
        testing::ExitedWithCode(0), "");
}
