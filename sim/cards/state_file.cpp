#include "sim/cards/state_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr std::size_t RECORD_HEADER = 5;
constexpr std::uintmax_t LARGEST_STATE = 1U << 20;

void appendLength(Bytes& state, std::size_t length)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        state.push_back(static_cast<std::uint8_t>((length >> shift) & 0xFFU));
    }
}

std::size_t lengthAt(std::span<const std::uint8_t> bytes)
{
    std::size_t length = 0;
    for (const std::uint8_t byte : bytes.first(4)) {
        length = (length << 8) | byte;
    }
    return length;
}

[[noreturn]] void throwErrno(const std::filesystem::path& path)
{
    throw StateError(path.string() + ": " + std::strerror(errno));
}

bool writeAll(int file, std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written < 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return true;
}

} // namespace

Bytes packState(std::string_view magic, const StateRecords& records)
{
    if (magic.size() != STATE_MAGIC_LENGTH) {
        throw std::invalid_argument("a state's magic has eight characters");
    }
    Bytes state(magic.begin(), magic.end());
    for (const auto& [tag, value] : records) {
        state.push_back(tag);
        appendLength(state, value.size());
        state.insert(state.end(), value.begin(), value.end());
    }
    return state;
}

StateRecords unpackState(std::string_view magic, std::span<const std::uint8_t> state)
{
    if (state.size() < magic.size() ||
        !std::equal(magic.begin(), magic.end(), state.begin(), [](char wanted, std::uint8_t is) {
            return static_cast<std::uint8_t>(wanted) == is;
        })) {
        throw StateError("this is not the state of such a card");
    }
    StateRecords records;
    state = state.subspan(magic.size());
    while (!state.empty()) {
        if (state.size() < RECORD_HEADER ||
            state.size() - RECORD_HEADER < lengthAt(state.subspan(1))) {
            throw StateError("the state ends inside a record");
        }
        const std::size_t length = lengthAt(state.subspan(1));
        const auto value = state.subspan(RECORD_HEADER, length);
        if (!records.emplace(state.front(), Bytes(value.begin(), value.end())).second) {
            throw StateError("the state has a record twice");
        }
        state = state.subspan(RECORD_HEADER + length);
    }
    return records;
}

const Bytes& stateRecord(const StateRecords& records, std::uint8_t tag, std::size_t length)
{
    const auto record = records.find(tag);
    if (record == records.end()) {
        throw StateError("the state lacks record " + std::to_string(tag));
    }
    if (length != 0 && record->second.size() != length) {
        throw StateError("the state has a wrong length in record " + std::to_string(tag));
    }
    return record->second;
}

void writeStateFile(const std::filesystem::path& path, std::span<const std::uint8_t> state)
{
    std::filesystem::path fresh = path;
    fresh += ".new";
    const int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) {
        throwErrno(fresh);
    }
    const bool written = writeAll(file, state);
    if (::close(file) != 0 || !written || ::rename(fresh.c_str(), path.c_str()) != 0) {
        throwErrno(fresh);
    }
}

Bytes readStateFile(const std::filesystem::path& path)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) {
        throw StateError(path.string() + ": " + error.message());
    }
    if (size > LARGEST_STATE) {
        throw StateError(path.string() + ": too large for a card's state");
    }
    std::ifstream file(path, std::ios::binary);
    Bytes state(static_cast<std::size_t>(size));
    for (std::uint8_t& byte : state) {
        const int next = file.get();
        if (next < 0) {
            throw StateError(path.string() + ": cannot be read");
        }
        byte = static_cast<std::uint8_t>(next);
    }
    return state;
}

} // namespace sim
