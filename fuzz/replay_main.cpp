// replay_main.cpp - runs the fuzz harness over files without libFuzzer, so
// that an ordinary build can replay the seed corpus (or a crash input) under
// valgrind, which sees reads of uninitialised memory that ASan does not.
//
//   fuzz_replay FILE_OR_FOLDER...
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

long run_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "fuzz_replay: cannot read %s\n", path.c_str());
        return 0;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
    return 1;
}

long run_path(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "fuzz_replay: no such file %s\n", path.c_str());
        return 0;
    }
    if (!S_ISDIR(st.st_mode)) return run_file(path);
    long count = 0;
    if (DIR *d = opendir(path.c_str())) {
        std::vector<std::string> names;
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(d);
        for (const std::string &n : names) count += run_path(path + "/" + n);
    }
    return count;
}

}  // namespace

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    long count = 0;
    for (int k = 1; k < argc; ++k) count += run_path(argv[k]);
    std::printf("fuzz_replay: %ld inputs ran\n", count);
    return count > 0 ? 0 : 1;
}
