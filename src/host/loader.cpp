// loader.cpp - finding and opening libtessel.so, and calling its entry points
// by Zu name as the interpreter would.
#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>

#include "host_internal.h"

namespace zu {
namespace {

// The frame of the call in progress is per thread: calls may run at once.
thread_local std::string g_function;     // Zu name of the entry point being called
thread_local ZuValue *g_args = nullptr;  // its argument array
thread_local int g_nargs = 0;
std::mutex g_load_lock;
std::atomic<void *> g_handle{nullptr};  // libtessel.so, once opened (under g_load_lock)

// Path of the shared object holding this code (libzuhost.so).
std::string own_path() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&own_path), &info) && info.dli_fname) return info.dli_fname;
    return std::string();
}

}  // namespace

namespace detail {

CallScope::CallScope(const std::string &name, ZuValue *args, int nargs)
    : saved_name_(g_function), saved_args_(g_args), saved_nargs_(g_nargs) {
    g_function = name;
    g_args = args;
    g_nargs = nargs < 0 ? 0 : nargs;
}

CallScope::~CallScope() {
    g_function.swap(saved_name_);
    g_args = saved_args_;
    g_nargs = saved_nargs_;
}

int args_available(const ZuValue *args) {
    if (!g_args || args < g_args || args > g_args + g_nargs) return -1;
    return g_nargs - static_cast<int>(args - g_args);
}

int args_offset(const ZuValue *args) {
    if (!g_args || args < g_args || args > g_args + g_nargs) return 0;
    return static_cast<int>(args - g_args);
}

}  // namespace detail

const std::string &current_function() { return g_function; }

std::string library_path() {
    const char *env = std::getenv("TESSEL_LIBRARY");
    if (env && *env) return env;
    std::string self = own_path();
    const std::string::size_type slash = self.rfind('/');
    if (slash == std::string::npos) return "libtessel.so";
    return self.substr(0, slash + 1) + "libtessel.so";
}

namespace {

// libtessel.so, opened on first use by whichever thread comes first.
void *library_handle() {
    if (void *h = g_handle.load(std::memory_order_acquire)) return h;
    std::lock_guard<std::mutex> lock(g_load_lock);
    if (void *h = g_handle.load(std::memory_order_relaxed)) return h;
    // A host loaded with RTLD_LOCAL (Python extension modules are) keeps its
    // symbols from the global scope, where libtessel.so looks for the host
    // operations: promote this object to global scope first.
    const std::string self = own_path();
    if (!self.empty()) dlopen(self.c_str(), RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD);
    const std::string path = library_path();
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char *why = dlerror();
        throw Error(kErrorMessage, "cannot load " + path + ": " + (why ? why : "unknown error"));
    }
    g_handle.store(h, std::memory_order_release);
    return h;
}

}  // namespace

void load_library() { library_handle(); }

void *find_symbol(const std::string &name) {
    void *h = library_handle();
    dlerror();
    return dlsym(h, name.c_str());
}

ZuEntryPoint find_entry_point(const std::string &name) {
    return reinterpret_cast<ZuEntryPoint>(find_symbol("Fn" + name));
}

int *message_switch() { return static_cast<int *>(dlsym(library_handle(), "fLgmNoErrorMessage")); }

Value call(const std::string &name, ZuValue *args, int nargs) {
    ZuEntryPoint fn = find_entry_point(name);
    if (!fn) throw Error(kErrorMessage, "unknown entry point Fn" + name);
    Value rtn;
    detail::CallScope scope(name, args, nargs);
    try {
        fn(rtn.raw(), args, nargs);
    } catch (const std::bad_alloc &) {
        rtn.reset();
        throw Error(kErrorMemory, detail::out_of_memory_text());
    }
    // On a zu::Error, rtn is freed by its destructor during unwinding.
    return rtn;
}

Value call(const std::string &name, std::vector<Value> &args) {
    // Values are laid out as ZuValues, so the vector is the argument array.
    ZuValue *raw = args.empty() ? nullptr : args.front().raw();
    return call(name, raw, static_cast<int>(args.size()));
}

}  // namespace zu
