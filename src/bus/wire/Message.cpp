#include "bus/wire/Message.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "bus/wire/Names.h"
#include "platform/base/UTF8.h"

namespace tarnwell::bus {

namespace {

/// The length of a text or array, and what stands between values so that they begin at an even place.
constexpr std::size_t kOverhead = 8;
/// So that a request of values that nobody wants is given up after some ten thousand of them.
constexpr std::size_t kCostOfSkipping = 256;
/// Types of D-Bus whose arrays are read as one.
constexpr std::string_view kPlainNumbers = "ynqiuxtd";

}  // namespace

bool isText(std::string_view value) { return value.find('\0') == std::string_view::npos && isUTF8(value); }

std::string displayable(std::string_view value) {
    if (isText(value)) return std::string(value);
    std::string result;
    while (!value.empty()) {
        const std::size_t length = value.front() == '\0' ? 0 : utf8CharacterLength(value);
        result += length == 0 ? "\xEF\xBF\xBD" : value.substr(0, length);
        value.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

void Writer::take(int outcome) {
    if (outcome < 0 && error_ == 0) error_ = outcome;
}

template <typename T>
Writer& Writer::append(char type, const T& value) {
    if (error_ == 0) take(sd_bus_message_append_basic(message_, type, &value));
    bytes_ += sizeof value;
    return *this;
}

Writer& Writer::boolean(bool value) { return append('b', value ? 1 : 0); }
Writer& Writer::uint16(std::uint16_t value) { return append('q', value); }
Writer& Writer::uint32(std::uint32_t value) { return append('u', value); }
Writer& Writer::uint64(std::uint64_t value) { return append('t', value); }
Writer& Writer::int64(std::int64_t value) { return append('x', value); }
Writer& Writer::string(std::string_view value) {
    if (error_ != 0) return *this;
    const std::string text = displayable(value);
    take(sd_bus_message_append_basic(message_, 's', text.c_str()));
    bytes_ += kOverhead + text.size();
    return *this;
}
Writer& Writer::objectPath(const std::string& value) {
    if (error_ == 0) take(sd_bus_message_append_basic(message_, 'o', value.c_str()));
    bytes_ += kOverhead + value.size();
    return *this;
}
Writer& Writer::bytes(ByteView value) {
    if (error_ == 0) take(sd_bus_message_append_array(message_, 'y', value.data(), value.size()));
    bytes_ += kOverhead + value.size();
    return *this;
}
Writer& Writer::descriptor(const Descriptor& value) {
    ++descriptors_;
    return append('h', value.get());
}
Writer& Writer::open(char type, const char* contents) {
    if (error_ == 0) take(sd_bus_message_open_container(message_, type, contents));
    bytes_ += kOverhead;
    return *this;
}
Writer& Writer::close() {
    if (error_ == 0) take(sd_bus_message_close_container(message_));
    return *this;
}

void Reader::take(int outcome) {
    if (outcome < 0) fail(outcome);
}

void Reader::fail(int error) {
    if (error_ == 0) error_ = error;
}

void Reader::spend(std::size_t bytes) {
    read_ += bytes;
    if (read_ > most_) fail(-EMSGSIZE);
}

template <typename T>
T Reader::basic(char type) {
    T value{};
    spend(sizeof value);
    if (error_ != 0) return value;
    const int outcome = sd_bus_message_read_basic(message_, type, &value);
    if (outcome == 0) fail(-ENXIO);  // the end of what holds it
    take(outcome);
    return error_ == 0 ? value : T{};
}

bool Reader::boolean() { return basic<int>('b') != 0; }
std::uint16_t Reader::uint16() { return basic<std::uint16_t>('q'); }
std::uint32_t Reader::uint32() { return basic<std::uint32_t>('u'); }
std::uint64_t Reader::uint64() { return basic<std::uint64_t>('t'); }
std::int64_t Reader::int64() { return basic<std::int64_t>('x'); }

std::string Reader::string() { return characters('s'); }
std::string Reader::objectPath() { return characters('o'); }

std::string Reader::characters(char type) {
    const char* value = basic<const char*>(type);
    if (value == nullptr) return {};
    const std::string_view view(value);
    spend(view.size());
    if (view.size() > kLongestText) fail(-EMSGSIZE);
    std::string text(error_ == 0 ? view : std::string_view());
    return text;
}

Bytes Reader::bytes(std::size_t longest) {
    const void* data = nullptr;
    std::size_t size = 0;
    if (error_ == 0) take(sd_bus_message_read_array(message_, 'y', &data, &size));
    if (size > longest) fail(-EMSGSIZE);
    spend(kOverhead + size);
    if (error_ != 0 || size == 0) return {};
    const auto view = std::span(static_cast<const std::uint8_t*>(data), size);
    return {view.begin(), view.end()};
}

std::string Reader::text() { return std::string(textOf(bytes(kLongestText))); }

std::vector<std::string> Reader::texts() {
    std::vector<std::string> texts;
    enter('a', "ay");
    while (more()) {
        if (texts.size() == kMostPerRequest) fail(-E2BIG);
        texts.push_back(text());
    }
    exit();
    return texts;
}

Descriptor Reader::descriptor() {
    const int borrowed = basic<int>('h');
    if (error_ != 0) return {};
    Descriptor own(::fcntl(borrowed, F_DUPFD_CLOEXEC, 3));
    if (!own.valid()) fail(-errno);
    return own;
}

void Reader::enter(char type, const char* contents) {
    spend(kOverhead);
    if (error_ != 0) return;
    const int outcome = sd_bus_message_enter_container(message_, type, contents);
    if (outcome == 0) fail(-ENXIO);
    take(outcome);
}

void Reader::exit() {
    if (error_ == 0) take(sd_bus_message_exit_container(message_));
}

bool Reader::more() {
    if (error_ != 0) return false;
    const int atEnd = sd_bus_message_at_end(message_, 0);
    take(atEnd);
    return atEnd == 0;
}

std::string_view Reader::variantContents() {
    if (error_ != 0) return {};
    char type = 0;
    const char* contents = nullptr;
    const int outcome = sd_bus_message_peek_type(message_, &type, &contents);
    if (outcome == 0 || (outcome > 0 && type != 'v')) fail(-ENXIO);
    take(outcome);
    return error_ == 0 && contents != nullptr ? contents : std::string_view();
}

void Reader::skip() {
    spend(kCostOfSkipping);
    char type = 0;
    const char* contents = nullptr;
    if (error_ != 0) return;
    const int outcome = sd_bus_message_peek_type(message_, &type, &contents);
    if (outcome == 0) fail(-ENXIO);
    take(outcome);
    if (error_ != 0) return;
    const std::string inside(contents == nullptr ? "" : contents);
    if (type == 'a' && inside.size() == 1 && kPlainNumbers.find(inside[0]) != std::string_view::npos) {
        // As one, however many there are.
        const void* numbers = nullptr;
        std::size_t size = 0;
        return take(sd_bus_message_read_array(message_, inside[0], &numbers, &size));
    }
    if (inside.empty()) return take(sd_bus_message_skip(message_, std::array{type, '\0'}.data()));
    enter(type, inside.c_str());
    while (more()) skip();
    exit();
}

}  // namespace tarnwell::bus
