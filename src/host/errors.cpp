// errors.cpp - host errors and messages: ZuRunError, ZuRunErrorMessage,
// ZuRunMessage and the message sink.
#include <cstdio>
#include <string>
#include <utility>

#include "host_internal.h"

namespace zu {
namespace {

MessageSink &sink() {
    static MessageSink s;
    return s;
}

}  // namespace

MessageSink set_message_sink(MessageSink s) {
    MessageSink previous = std::move(sink());
    sink() = std::move(s);
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
    if (zu::sink()) {
        zu::sink()(t);
    } else {
        std::fputs(t, stderr);
        std::fputc('\n', stderr);
        std::fflush(stderr);
    }
}

}  // extern "C"
