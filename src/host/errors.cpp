// errors.cpp - host errors and messages: ZuRunError, ZuRunErrorMessage,
// ZuRunMessage and the message sink.
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "host_internal.h"

namespace zu {
namespace {

// The sink and its guard are never destroyed: a call abandoned by an
// interrupted caller may still pass a message while the process exits.
struct Sink {
    std::mutex lock;
    MessageSink fn;
};

Sink &sink() {
    static Sink *s = new Sink;
    return *s;
}

}  // namespace

MessageSink set_message_sink(MessageSink s) {
    Sink &k = sink();
    std::lock_guard<std::mutex> lock(k.lock);
    MessageSink previous = std::move(k.fn);
    k.fn = std::move(s);
    return previous;
}

namespace detail {

std::string error_prefix() {
    const std::string &f = current_function();
    return f.empty() ? std::string() : f + "(): ";
}

std::string out_of_memory_text() { return error_prefix() + "out of memory"; }

}  // namespace detail
}  // namespace zu

extern "C" {

void ZuRunError(int number, const char *token) {
    if (number == zu::kErrorMemory) throw zu::Error(number, zu::detail::out_of_memory_text());
    std::string text = zu::detail::error_prefix() + "run-time error " + std::to_string(number);
    if (token && *token) text += std::string(": ") + token;
    throw zu::Error(number, text);
}

void ZuRunErrorMessage(const char *text) { throw zu::Error(zu::kErrorMessage, text ? text : ""); }

void ZuRunMessage(const char *text) {
    const char *t = text ? text : "";
    zu::MessageSink fn;
    {
        zu::Sink &k = zu::sink();
        std::lock_guard<std::mutex> lock(k.lock);
        fn = k.fn;  // called outside the lock: a sink may take its time
    }
    if (fn) {
        fn(t);
    } else {
        std::fputs(t, stderr);
        std::fputc('\n', stderr);
        std::fflush(stderr);
    }
}

}  // extern "C"
