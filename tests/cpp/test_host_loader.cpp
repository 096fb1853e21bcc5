// Tests of the host's loader and call boundary against the real libtessel.so.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_util.h"

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

// Loading twice is a no-op; an unknown name resolves to nothing and a call
// of it is an error. LgmVersion answers through the call boundary. With
// messages on, LgmWarning() without arguments raises its error through
// ZuRunErrorMessage; every call restores the function name and leaves
// nothing allocated.
TEST(HostLoader, LoadsResolvesCallsAndPassesErrorsBack) {
    ensure_library_env();
    ASSERT_NO_THROW(zu::load_library());
    ASSERT_NO_THROW(zu::load_library());
    EXPECT_EQ(zu::find_entry_point("NoSuchEntryPoint"), nullptr);
    testutil::NoLeak guard;
    testutil::Args none, on = {zu::Value::integer(1)};
    testutil::CallError e = testutil::call_error("NoSuchEntryPoint", none);
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, "unknown entry point FnNoSuchEntryPoint");
    EXPECT_EQ(zu::current_function(), "");
    EXPECT_EQ(zu::call("LgmVersion", none).as_int(), 300);
    EXPECT_EQ(zu::current_function(), "");
    zu::call("LgmWarning", on);
    e = testutil::call_error("LgmWarning", none);
    EXPECT_EQ(e.number, zu::kErrorMessage);
    EXPECT_EQ(e.text, "LgmWarning(): at least one argument required");
    EXPECT_EQ(zu::current_function(), "");
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
