#include "record/replayer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <vector>

#include "crossing/crossing.h"
#include "record/passages.h"
#include "record/recorder.h"
#include "watch/progress.h"

namespace host {

namespace {

/* ---- the file ---- */

struct Line {
    std::string text;
    std::string kind;      // in, out, result, answer, stray, end
    std::string operation; // in, out, stray
    u64 number = 0;        // its own
    u64 of = 0;            // result, answer: number of the call
    Value fields;
};

class RecordFile {
public:
    RecordFile(const std::string &path, bool partial);

    /* None at the end of a record that was cut off. Throws when the line is damaged. */
    std::optional<Line> next();

    std::string position() const // of the last line
    {
        return path_ + ":" + std::to_string(lineNumber_);
    }
    u64 size() const // bytes
    {
        return size_;
    }
    u64 readSoFar() const
    {
        return read_;
    }

private:
    void checkHeader();
    void checkEnd();
    void read(Line &line);
    bool getLine(std::string &line);
    [[noreturn]] void damaged(const std::string &why) const;

    const std::string path_;
    const bool partial_;
    std::ifstream file_;
    u64 size_ = 0, read_ = 0;
    u64 lineNumber_ = 0, lastNumber_ = 0;
    u64 inputs_ = 0, outputs_ = 0;
};

void RecordFile::damaged(const std::string &why) const
{
    throw std::runtime_error(position() + ": damaged record: " + why);
}

RecordFile::RecordFile(const std::string &path, bool partial) : path_(path), partial_(partial)
{
    std::error_code error;
    size_ = std::filesystem::file_size(path, error);
    if (error) {
        throw std::runtime_error(path + ": " + error.message());
    }
    file_.open(path);
    if (!file_) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    checkHeader();
    if (!partial_) {
        checkEnd();
    }
}

void RecordFile::checkHeader()
{
    std::string line;
    const bool some = getLine(line);
    const Value header = some ? Value::parse(line, nullptr, false) : Value();
    if (!header.is_object() || header.value("format", Value()) != recordFormat) {
        throw std::runtime_error(path_ + ": not a record of l2rsm-host");
    }
    const Value version = header.value("version", Value());
    if (version != recordVersion) {
        throw std::runtime_error(path_ + ": the record has version " + version.dump() +
                                 ", this program replays version " + std::to_string(recordVersion));
    }
}

/* A look at the last line, before anything is played. */
void RecordFile::checkEnd()
{
    const auto here = file_.tellg();
    const std::uintmax_t tail = std::min<std::uintmax_t>(size_, 256);
    std::string text(tail, '\0');
    file_.seekg(-static_cast<std::streamoff>(tail), std::ios::end);
    file_.read(text.data(), static_cast<std::streamsize>(tail));
    file_.clear();
    file_.seekg(here);
    const bool whole = text.ends_with('\n');
    const auto start = whole ? text.rfind('\n', text.size() - 2) : text.npos;
    if (start == text.npos || !text.substr(start + 1).starts_with("{\"end\":")) {
        throw std::runtime_error(path_ + ": the record was cut off, its last line is missing; "
                                         "--partial replays what there is");
    }
}

bool RecordFile::getLine(std::string &line)
{
    if (!std::getline(file_, line) || file_.eof()) {
        return false; // what no newline ends was cut off
    }
    ++lineNumber_;
    read_ += line.size() + 1;
    return true;
}

std::optional<Line> RecordFile::next()
{
    Line line;
    if (!getLine(line.text)) {
        if (!partial_) {
            damaged("more was expected");
        }
        return std::nullopt;
    }
    try {
        read(line);
    } catch (const std::exception &error) {
        damaged(error.what());
    }
    return line;
}

/* What the line says, from its text. Throws with what is wrong with it. */
void RecordFile::read(Line &line)
{
    line.fields = Value::parse(line.text, nullptr, false);
    if (!line.fields.is_object()) {
        throw std::runtime_error("no JSON object");
    }
    if (line.fields.contains("end")) {
        line.kind = "end";
        if (numberIn<u64>(line.fields, "end") != lastNumber_ ||
            numberIn<u64>(line.fields, "inputs") != inputs_ ||
            numberIn<u64>(line.fields, "outputs") != outputs_) {
            throw std::runtime_error("the counts are not those of the lines before");
        }
        return;
    }
    line.number = numberIn<u64>(line.fields, "n");
    if (line.number != ++lastNumber_) {
        throw std::runtime_error("number " + std::to_string(lastNumber_) + " is missing");
    }
    for (const char *kind : {"in", "out", "stray", "result", "answer"}) {
        const auto what = line.fields.find(kind);
        if (what == line.fields.end()) {
            continue;
        }
        line.kind = kind;
        if (what->is_string()) {
            line.operation = *what;
        } else {
            line.of = numberIn<u64>(line.fields, kind);
        }
        line.fields.erase(what);
    }
    const bool call = line.kind == "in" || line.kind == "out" || line.kind == "stray";
    if (line.kind.empty() || line.operation.empty() == call) {
        throw std::runtime_error("no line of a record");
    }
    for (const char *about : {"n", "t", "th"}) {
        line.fields.erase(about);
    }
    (line.kind == "in" || line.kind == "answer" ? inputs_ : outputs_) += 1;
}

/* ---- playing ---- */

class Replayer : public crossing::Listener {
public:
    explicit Replayer(const ReplayOptions &options)
        : options_(options), file_(options.record, options.partial)
    {
    }

    int run();

    void pass(crossing::Passage &passage, const crossing::Next &next) override;

private:
    Line next();
    void playInput(Line input);
    void playAnswer(crossing::Passage &passage);
    Value answerTo(u64 number);
    [[noreturn]] void badAnswer(const std::string &why);
    void compare(const Line &expected, const char *kind, const Value &what, const Value &fields);
    void loadModule() const;
    void printCounts(const char *where);
    [[noreturn]] void differ(const Line &expected, const std::string &got);
    [[noreturn]] void refuse(const std::string &why);

    const ReplayOptions options_;
    RecordFile file_;
    std::deque<std::string> before_; // the last few lines
    std::vector<Line> open_;         // inputs being played, the outermost first
    u64 inputs_ = 0, outputs_ = 0, strays_ = 0;
    std::optional<Progress> progress_;
};

constexpr std::size_t contextLines = 8;

/* The module cannot be unwound: where it is in the way, the process ends here. */
[[noreturn]] void endProcess(int status)
{
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}

void Replayer::refuse(const std::string &why)
{
    progress_.reset();
    std::fflush(stdout);
    std::fprintf(stderr, "l2rsm-host: %s\n", why.c_str());
    endProcess(1);
}

void Replayer::badAnswer(const std::string &why)
{
    refuse(file_.position() + ": damaged record: " + why);
}

/* The next line that is to be played or compared. */
Line Replayer::next()
{
    for (;;) {
        std::optional<Line> line;
        try {
            line = file_.next();
        } catch (const std::exception &error) {
            refuse(error.what());
        }
        if (!line) {
            printCounts(", up to where the record was cut off");
            endProcess(0);
        }
        if (progress_) {
            progress_->update(file_.readSoFar());
        }
        if (line->kind != "stray") {
            return std::move(*line);
        }
        ++strays_;
    }
}

void Replayer::playInput(Line input)
{
    ++inputs_;
    open_.push_back(input);
    before_.push_back(input.text);
    try {
        play(input.operation, input.fields);
    } catch (const std::exception &error) {
        refuse(file_.position() + ": cannot play " + input.operation + ": " + error.what());
    }
    open_.pop_back();
}

/* What the module does must be the record's next line. */
void Replayer::compare(const Line &expected, const char *kind, const Value &what,
                       const Value &fields)
{
    const bool same =
        expected.kind == kind && expected.fields == fields &&
        (what.is_string() ? expected.operation == what : expected.of == what.get<u64>());
    if (!same) {
        const std::string rest = fields.dump(-1, ' ', false, Value::error_handler_t::replace);
        differ(expected, std::string("{\"") + kind + "\":" + what.dump() +
                             (fields.empty() ? "}" : "," + rest.substr(1)));
    }
    ++outputs_;
    before_.push_back(expected.text);
    while (before_.size() > contextLines) {
        before_.pop_front();
    }
}

void Replayer::pass(crossing::Passage &passage, const crossing::Next &next)
{
    if (crossing::isInwards(passage.event)) {
        next();
        compare(this->next(), "result", open_.back().number, resultsOf(passage));
    } else {
        playAnswer(passage);
    }
}

void Replayer::playAnswer(crossing::Passage &passage)
{
    const Line expected = next();
    compare(expected, "out", operationOf(passage.event), argumentsOf(passage.event));
    if (std::holds_alternative<crossing::LogLine>(passage.event)) {
        return;
    }
    const Value recorded = answerTo(expected.number);
    try {
        answer(passage, recorded);
    } catch (const std::exception &error) {
        badAnswer(error.what());
    }
}

/* Until the answer comes, what was called may itself have called the module. */
Value Replayer::answerTo(u64 number)
{
    for (;;) {
        Line line = next();
        if (line.kind == "answer" && line.of == number) {
            ++inputs_;
            before_.push_back(line.text);
            return line.fields;
        }
        if (line.kind != "in") {
            badAnswer("the answer to number " + std::to_string(number) + " is missing");
        }
        playInput(std::move(line));
    }
}

void Replayer::differ(const Line &expected, const std::string &got)
{
    progress_.reset();
    const bool shown =
        open_.empty() || std::ranges::find(before_, open_.back().text) != before_.end();
    if (!shown) {
        std::printf("  %s\n  ...\n", open_.back().text.c_str());
    }
    for (const std::string &line : before_) {
        std::printf("  %s\n", line.c_str());
    }
    std::printf("expected:\n  %s\ngot:\n  %s\n", expected.text.c_str(), got.c_str());
    refuse(file_.position() + ": the module does not do what the record says");
}

void Replayer::loadModule() const
{
    void *handle = dlopen(options_.module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
    }
    crossing::setModule(handle);
}

int Replayer::run()
{
    crossing::attach(*this);
    crossing::leaveAlone();
    loadModule();
    progress_.emplace("replay, bytes", file_.size());
    for (;;) {
        Line line = next();
        if (line.kind == "end") {
            break;
        }
        if (line.kind != "in") {
            badAnswer(line.kind + " outside any call");
        }
        playInput(std::move(line));
    }
    printCounts("");
    return 0;
}

void Replayer::printCounts(const char *where)
{
    progress_.reset();
    if (strays_ != 0) {
        std::printf("replay: %llu lines of the module outside any call were not compared\n",
                    strays_);
    }
    std::printf("replay: %llu inputs, %llu outputs, no difference%s\n", inputs_, outputs_, where);
}

} // namespace

int replay(const ReplayOptions &options)
{
    // Never deleted: the module calls it until the process is gone.
    return (new Replayer(options))->run();
}

} // namespace host
