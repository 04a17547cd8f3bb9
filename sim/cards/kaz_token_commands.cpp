// What the simulated KAZTOKEN does with commands in general, and those on files.
#include "sim/cards/answer.h"
#include "sim/cards/kaz_token.h"
#include "sim/cards/kaz_token_command.h"

#include <utility>

namespace sim {

namespace {

constexpr std::uint16_t MASTER_FILE = 0x3F00;

std::uint16_t numberAt(std::span<const std::uint8_t> bytes, std::size_t at)
{
    return static_cast<std::uint16_t>((bytes[at] << 8) | bytes[at + 1]);
}

} // namespace

struct KazToken::Instruction {
    std::uint8_t cla;
    std::uint8_t code;
    Bytes (KazToken::*run)(const Command&);
    unsigned long KazTokenCounters::*counter;
};

const std::array<KazToken::Instruction, 11> KazToken::INSTRUCTIONS{{
    {kaz_class::PLAIN, 0xA4, &KazToken::select, &KazTokenCounters::selects},
    {kaz_class::PLAIN, 0xB0, &KazToken::readBinary, &KazTokenCounters::reads},
    {kaz_class::PLAIN, 0xD6, &KazToken::updateBinary, &KazTokenCounters::updates},
    {kaz_class::PLAIN, 0xE0, &KazToken::createFile, &KazTokenCounters::creates},
    {kaz_class::PLAIN, 0xE4, &KazToken::deleteFile, &KazTokenCounters::deletes},
    {kaz_class::PLAIN, 0x20, &KazToken::verify, &KazTokenCounters::verifies},
    {kaz_class::OWN, 0x40, &KazToken::logOut, &KazTokenCounters::logouts},
    {kaz_class::PLAIN, 0x22, &KazToken::setEnvironment, &KazTokenCounters::environments},
    {kaz_class::PLAIN, 0x2A, &KazToken::sign, &KazTokenCounters::signCommands},
    {kaz_class::PLAIN, 0x46, &KazToken::keyPair, &KazTokenCounters::keyPairs},
    {kaz_class::PLAIN, 0x84, &KazToken::challenge, &KazTokenCounters::challenges},
}};

Bytes KazToken::transmit(std::span<const std::uint8_t> command)
{
    ++counters_.commands;
    const Bytes chained = std::exchange(chained_, {});
    if (command.size() < 4) {
        return status(WRONG_LENGTH);
    }
    if (command[0] != kaz_class::PLAIN && command[0] != kaz_class::CHAINED &&
        command[0] != kaz_class::OWN) {
        return status(UNKNOWN_CLASS);
    }
    const auto known = std::find_if(INSTRUCTIONS.begin(), INSTRUCTIONS.end(),
                                    [&](const Instruction& i) { return i.code == command[1]; });
    if (known == INSTRUCTIONS.end()) {
        return status(UNKNOWN_INSTRUCTION);
    }
    ++(counters_.*known->counter);
    const bool chains = command[0] == kaz_class::CHAINED;
    if (chains ? known->run != &KazToken::sign : command[0] != known->cla) {
        return status(chains ? NO_CHAINING : UNKNOWN_CLASS);
    }
    const std::optional<Command> parsed = Command::parse(command);
    if (!parsed) {
        return status(WRONG_LENGTH);
    }
    if (known->run == &KazToken::sign) {
        chained_ = chained; // the one command that goes on with it
    }
    return (this->*known->run)(*parsed);
}

KazFile* KazToken::openFile()
{
    return file_ ? kazFind(files_, kazBelow(directory_, *file_)) : nullptr;
}

bool KazToken::allows(KazFile::Need need) const
{
    return need == KazFile::Need::Nothing || (need == KazFile::Need::Pin && verified_);
}

// The path that a SELECT means, if anything stands there.
std::optional<KazPath> KazToken::pathFor(const Command& command) const
{
    KazPath path;
    if (command.p1 == 0x08) {
        for (std::size_t at = 0; at + 1 < command.data.size(); at += 2) {
            path.push_back(numberAt(command.data, at));
        }
        return hasFile(path) ? std::optional(path) : std::nullopt;
    }
    const std::uint16_t id = numberAt(command.data, 0);
    path = kazBelow(directory_, id);
    if (hasFile(path)) {
        return path; // a file below the directory comes before the directory itself
    }
    if (id == MASTER_FILE) {
        return KazPath{};
    }
    return !directory_.empty() && directory_.back() == id ? std::optional(directory_)
                                                          : std::nullopt;
}

Bytes KazToken::select(const Command& command)
{
    constexpr std::uint8_t BY_IDENTIFIER = 0x00;
    constexpr std::uint8_t BY_PATH = 0x08;
    constexpr std::uint8_t CONTROL_PARAMETERS = 0x04;
    if ((command.p1 != BY_IDENTIFIER && command.p1 != BY_PATH) ||
        command.p2 != CONTROL_PARAMETERS) {
        return status(WRONG_PARAMETERS);
    }
    const std::size_t length = command.data.size();
    if (length == 0 || length % 2 != 0 || (command.p1 == BY_IDENTIFIER && length != 2)) {
        return status(WRONG_LENGTH);
    }
    std::optional<KazPath> path = pathFor(command);
    if (!path) {
        return status(FILE_NOT_FOUND);
    }
    const KazFile& found = *kazFind(files_, *path);
    file_.reset();
    if (found.kind != KazFile::Kind::Directory) {
        file_ = path->back();
        path->pop_back();
    }
    directory_ = *path;
    const Bytes parameters = kazControlParameters(found);
    if (!command.le) {
        return status(DONE);
    }
    return command.wanted() < parameters.size() ? Bytes{EXACT_LENGTH, lowByte(parameters.size())}
                                                : with(parameters, DONE);
}

Bytes KazToken::readBinary(const Command& command)
{
    if ((command.p1 & SHORT_FILE_IDENTIFIER) != 0) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyWants()) {
        return status(WRONG_LENGTH);
    }
    const KazFile* const open = openFile();
    if (open == nullptr) {
        return status(NO_CURRENT_FILE);
    }
    if (open->kind != KazFile::Kind::Transparent) {
        return status(WRONG_KIND_OF_FILE);
    }
    if (!allows(open->need(KazFile::Act::Read))) {
        return status(SECURITY_STATUS);
    }
    const std::span<const std::uint8_t> content = open->content;
    if (command.offset() >= content.size()) {
        const bool bare = endOfFile_ == EndOfFile::Bare && command.offset() == content.size();
        return status(bare ? DONE : WRONG_OFFSET);
    }
    const auto rest = content.subspan(command.offset());
    if (rest.size() >= command.wanted()) {
        return with(rest.first(command.wanted()), DONE);
    }
    // A length of 00 asks for whatever there is.
    return with(rest, *command.le == 0 ? DONE : FILE_ENDS_EARLY);
}

Bytes KazToken::updateBinary(const Command& command)
{
    if ((command.p1 & SHORT_FILE_IDENTIFIER) != 0) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyData()) {
        return status(WRONG_LENGTH);
    }
    KazFile* const open = openFile();
    if (open == nullptr) {
        return status(NO_CURRENT_FILE);
    }
    if (open->kind != KazFile::Kind::Transparent) {
        return status(WRONG_KIND_OF_FILE);
    }
    if (!allows(open->need(KazFile::Act::Update))) {
        return status(SECURITY_STATUS);
    }
    if (command.offset() > open->content.size()) {
        return status(WRONG_OFFSET);
    }
    if (command.data.size() > open->content.size() - command.offset()) {
        return status(FILE_FULL);
    }
    std::copy(command.data.begin(), command.data.end(),
              open->content.begin() + static_cast<std::ptrdiff_t>(command.offset()));
    ++revision_;
    return status(DONE);
}

// Each kind of file has its directories.
bool KazToken::mayHold(const KazFile& file) const
{
    const auto inPairs = [&](std::uint16_t below) {
        return directory_ == KazPath{0x1000, 0x1000, below} && file.id >= 0x0001 &&
               file.id <= 0x00FE;
    };
    switch (file.kind) {
    case KazFile::Kind::Directory:
        return directory_ == KazPath{0x1000} && file.id == 0x1010;
    case KazFile::Kind::Transparent:
        return (directory_ == KazPath{0x1000, 0x1010} && file.id == 0x1010) || inPairs(0x6004);
    case KazFile::Kind::Key:
        return inPairs(0x6001) || inPairs(0x6002);
    }
    return false;
}

Bytes KazToken::createFile(const Command& command)
{
    if (!command.parameters(0x00, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyData()) {
        return status(WRONG_LENGTH);
    }
    const std::optional<KazFile> file = kazFileToCreate(command.data);
    if (!file || !mayHold(*file)) {
        return status(WRONG_DATA);
    }
    if (!allows(files_.at(directory_).need(KazFile::Act::CreateBelow))) {
        return status(SECURITY_STATUS);
    }
    const bool isDirectory = file->kind == KazFile::Kind::Directory;
    if (hasFile(kazBelow(directory_, file->id))) {
        return status(isDirectory ? DIRECTORY_EXISTS : FILE_EXISTS);
    }
    kazAdd(files_, directory_, *file);
    file_.reset();
    if (isDirectory) {
        directory_.push_back(file->id);
    } else {
        file_ = file->id;
    }
    ++revision_;
    return status(DONE);
}

// By its identifier below the current directory, or the open file.
Bytes KazToken::deleteFile(const Command& command)
{
    if (!command.parameters(0x00, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (command.bare()) {
        return file_ ? remove(*file_) : status(NO_CURRENT_FILE);
    }
    if (!command.onlyData() || command.data.size() != 2) {
        return status(WRONG_LENGTH);
    }
    return remove(numberAt(command.data, 0));
}

Bytes KazToken::remove(std::uint16_t id)
{
    const KazPath path = kazBelow(directory_, id);
    const KazFile* const doomed = kazFind(files_, path);
    if (doomed == nullptr) {
        return status(FILE_NOT_FOUND);
    }
    if (!allows(doomed->need(KazFile::Act::Delete))) {
        return status(SECURITY_STATUS);
    }
    kazRemove(files_, path);
    if (file_ == id) {
        file_.reset();
    }
    ++revision_;
    return status(DONE);
}

} // namespace sim
