// Command-line parsing shared by every command of the tool: exit codes, the
// one-line error report, option tables, and the value syntaxes (times, sizes,
// numbers) that every command accepts the same way.
#pragma once

#include <clipdec/clipdec.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace cli {

// The tool's documented exit codes.
enum ExitCode : int {
    kExitOk = 0,
    kExitInput = 1,   // an input could not be read, probed or decoded
    kExitUsage = 2,   // bad command line
    kExitOutput = 3,  // an output could not be written
};

// Thrown by a command to end with one line on standard error and `code`.
struct Failure {
    int code;
    std::string message;
};

// The tool's own messages (errors, progress) go here: the process's standard
// error as it was at start.
FILE* diagnostics();
// Unless `verbose`, what the library and FFmpeg print straight to standard
// error is dropped, while diagnostics() keeps the real standard error.
void hide_library_output(bool verbose);

// Throws Failure{code, printf-formatted message}.
[[noreturn]] void fail(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));

// "12.5" (kept exact), "1001/30000", "HH:MM:SS.mmm" or "MM:SS"; never negative.
bool parse_time(const std::string& text, ff::Rational& out);
// "320x180"; either side may be 0 (no limit), not both negative or absurd.
bool parse_size(const std::string& text, int& width, int& height);
// A finite decimal number, the whole text.
bool parse_number(const std::string& text, double& out);
// A decimal integer, the whole text.
bool parse_integer(const std::string& text, long long& out);
// Seconds of a time, for messages.
std::string time_text(const ff::Rational& t);

struct OptionSpec {
    const char* name;      // "--at", or a short alias such as "-o"
    bool takes_value;
    const char* alias = nullptr;  // a second spelling ("--output" for "-o")
};

// A command's parsed arguments. "--help" or "-h" anywhere sets help();
// unknown options, missing values and repeated options fail with kExitUsage.
class Options {
public:
    Options(const char* command, const std::vector<const char*>& args, const std::vector<OptionSpec>& specs);

    bool help() const { return help_; }
    bool has(const char* name) const { return values_.count(name) != 0; }
    const std::vector<std::string>& positional() const { return positional_; }

    // The option's text; fallback when absent.
    std::string text(const char* name, const std::string& fallback = "") const;
    // Typed values, each failing with kExitUsage and a message naming the
    // option when the text does not parse or lies outside [min, max].
    ff::Rational time(const char* name, const ff::Rational& fallback) const;
    double number(const char* name, double fallback, double min, double max) const;
    long long integer(const char* name, long long fallback, long long min, long long max) const;
    void size(const char* name, int& width, int& height) const;  // unchanged when absent

    const char* command() const { return command_; }

private:
    const char* command_;
    bool help_ = false;
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

}  // namespace cli
