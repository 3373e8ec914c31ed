#include "kypcomm/protocol/Message.h"

#include <cstring>
#include <utility>

namespace {

unsigned char* copy_of(void const* bytes, uint64_t size) {
    if (size == 0) return nullptr;
    auto* const copy = new unsigned char[size];
    memcpy(copy, bytes, size);
    return copy;
}

}  // namespace

Message::Message() : length(0), data(nullptr) {}

Message::Message(void const* bytes, uint64_t size) : length(size), data(copy_of(bytes, size)) {}

Message::Message(Message const& other) : Message(other.data, other.length) {}

Message::Message(Message&& other) noexcept
    : length(std::exchange(other.length, 0)), data(std::exchange(other.data, nullptr)) {}

Message& Message::operator=(Message const& other) {
    *this = Message(other);
    return *this;
}

Message& Message::operator=(Message&& other) noexcept {
    std::swap(length, other.length);
    std::swap(data, other.data);
    return *this;
}

Message::~Message() {
    delete[] data;
}
