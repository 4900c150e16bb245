#include "cli_args.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace cli {

namespace {
FILE* g_diagnostics = nullptr;
}  // namespace

FILE* diagnostics() { return g_diagnostics ? g_diagnostics : stderr; }

void hide_library_output(bool verbose) {
    if (verbose || g_diagnostics) return;
    const int saved = dup(STDERR_FILENO);
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE* kept = saved >= 0 && null_fd >= 0 ? fdopen(saved, "w") : nullptr;
    if (!kept || dup2(null_fd, STDERR_FILENO) < 0) {
        // Nothing is hidden then; messages still reach the user.
        if (kept) std::fclose(kept);
        else if (saved >= 0) close(saved);
        if (null_fd >= 0) close(null_fd);
        return;
    }
    close(null_fd);
    setvbuf(kept, nullptr, _IOLBF, 0);
    g_diagnostics = kept;
}

void fail(int code, const char* format, ...) {
    char message[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    throw Failure{code, message};
}

bool parse_integer(const std::string& text, long long& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    out = value;
    return true;
}

bool parse_number(const std::string& text, double& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !std::isfinite(value)) return false;
    out = value;
    return true;
}

namespace {

bool all_digits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "12", "12.5" or ".5" as an exact fraction; at most 9 decimals and 12 whole
// digits, so that nothing overflows the 64-bit pair.
bool parse_decimal(const std::string& text, ff::Rational& out) {
    const size_t dot = text.find('.');
    const std::string whole = text.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
    if (whole.empty() && fraction.empty()) return false;
    if ((!whole.empty() && !all_digits(whole)) || whole.size() > 12) return false;
    if (dot != std::string::npos && (!all_digits(fraction) || fraction.size() > 9)) return false;
    long long scale = 1;
    for (size_t i = 0; i < fraction.size(); ++i) scale *= 10;
    const long long w = whole.empty() ? 0 : std::atoll(whole.c_str());
    const long long f = fraction.empty() ? 0 : std::atoll(fraction.c_str());
    out = ff::Rational(w * scale + f, scale);
    out.reduce();
    return true;
}

bool parse_fraction(const std::string& text, ff::Rational& out) {
    const size_t slash = text.find('/');
    const std::string num = text.substr(0, slash), den = text.substr(slash + 1);
    if (!all_digits(num) || !all_digits(den) || num.size() > 15 || den.size() > 15) return false;
    const long long d = std::atoll(den.c_str());
    if (d == 0) return false;
    out = ff::Rational(std::atoll(num.c_str()), d);
    return true;
}

// "HH:MM:SS.mmm", "MM:SS" and the like: minutes and seconds below 60 after
// the first field.
bool parse_clock(const std::string& text, ff::Rational& out) {
    std::vector<std::string> fields;
    size_t from = 0;
    for (size_t colon; (colon = text.find(':', from)) != std::string::npos; from = colon + 1)
        fields.push_back(text.substr(from, colon - from));
    fields.push_back(text.substr(from));
    if (fields.size() > 3) return false;
    ff::Rational seconds;
    if (!parse_decimal(fields.back(), seconds) || seconds >= ff::Rational(60, 1)) return false;
    long long minutes = 0;  // hours and minutes before the seconds
    for (size_t i = 0; i + 1 < fields.size(); ++i) {
        if (!all_digits(fields[i]) || fields[i].size() > 6) return false;
        const long long v = std::atoll(fields[i].c_str());
        if (i > 0 && v >= 60) return false;
        minutes = minutes * 60 + v;
    }
    out = seconds + ff::Rational(minutes * 60, 1);
    return true;
}

}  // namespace

bool parse_time(const std::string& text, ff::Rational& out) {
    if (text.find(':') != std::string::npos) return parse_clock(text, out);
    if (text.find('/') != std::string::npos) return parse_fraction(text, out);
    return parse_decimal(text, out);
}

bool parse_size(const std::string& text, int& width, int& height) {
    const size_t x = text.find('x');
    if (x == std::string::npos) return false;
    long long w = 0, h = 0;
    if (!parse_integer(text.substr(0, x), w) || !parse_integer(text.substr(x + 1), h)) return false;
    if (w < 0 || h < 0 || w > 16384 || h > 16384 || (w == 0 && h == 0)) return false;
    width = static_cast<int>(w);
    height = static_cast<int>(h);
    return true;
}

std::string time_text(const ff::Rational& t) {
    char text[48];
    std::snprintf(text, sizeof text, "%.3f s", t.to_double());
    return text;
}

Options::Options(const char* command, const std::vector<const char*>& args, const std::vector<OptionSpec>& specs)
    : command_(command) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string arg = args[i];
        if (arg == "--help" || arg == "-h") {
            help_ = true;
            continue;
        }
        if (arg.size() < 2 || arg[0] != '-' || std::isdigit(static_cast<unsigned char>(arg[1]))) {
            positional_.push_back(arg);
            continue;
        }
        const OptionSpec* spec = nullptr;
        for (const OptionSpec& s : specs)
            if (arg == s.name || (s.alias && arg == s.alias)) spec = &s;
        if (!spec) fail(kExitUsage, "unknown option %s (try clipdec %s --help)", arg.c_str(), command);
        if (values_.count(spec->name)) fail(kExitUsage, "option %s given twice", spec->name);
        if (!spec->takes_value) {
            values_[spec->name] = "";
            continue;
        }
        if (i + 1 >= args.size()) fail(kExitUsage, "option %s needs a value", arg.c_str());
        values_[spec->name] = args[++i];
    }
}

std::string Options::text(const char* name, const std::string& fallback) const {
    const auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

ff::Rational Options::time(const char* name, const ff::Rational& fallback) const {
    if (!has(name)) return fallback;
    ff::Rational t;
    if (!parse_time(text(name), t))
        fail(kExitUsage, "%s: '%s' is not a time (12.5, 1001/30000 or HH:MM:SS.mmm)", name, text(name).c_str());
    return t;
}

double Options::number(const char* name, double fallback, double min, double max) const {
    if (!has(name)) return fallback;
    double v = 0;
    if (!parse_number(text(name), v) || v < min || v > max)
        fail(kExitUsage, "%s: '%s' is not a number from %g to %g", name, text(name).c_str(), min, max);
    return v;
}

long long Options::integer(const char* name, long long fallback, long long min, long long max) const {
    if (!has(name)) return fallback;
    long long v = 0;
    if (!parse_integer(text(name), v) || v < min || v > max)
        fail(kExitUsage, "%s: '%s' is not a whole number from %lld to %lld", name, text(name).c_str(), min, max);
    return v;
}

void Options::size(const char* name, int& width, int& height) const {
    if (!has(name)) return;
    if (!parse_size(text(name), width, height))
        fail(kExitUsage, "%s: '%s' is not a size such as 320x180 (0 for no limit on one side)", name,
             text(name).c_str());
}

}  // namespace cli
