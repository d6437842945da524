#include "Output.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "Args.h"

namespace tool {

namespace {
// Guards g_out; every tool line is written and flushed under it.
std::mutex g_outMutex;
FILE* g_out = stdout;
// Until the apartment is up, the library's lines are kept in an anonymous
// file, so that a failed start can say why without --verbose; -1 after.
int g_startLines = -1;
bool g_verbose = false;

// Where the library's lines go once the apartment is up.
int libraryTarget() {
    return g_verbose ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY | O_CLOEXEC);
}

// The lines kept since the last call, emptied; a verbose tool shows them.
std::string takeStartLines() {
    std::string text;
    if (g_startLines < 0) return text;
    std::fflush(stdout);
    char chunk[4096];
    ssize_t got;
    lseek(g_startLines, 0, SEEK_SET);
    while ((got = read(g_startLines, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(got));
    if (ftruncate(g_startLines, 0) != 0) text.clear();
    lseek(g_startLines, 0, SEEK_SET);  // shared with standard output
    if (g_verbose) std::fputs(text.c_str(), stderr);
    return text;
}
}  // namespace

void separateLibraryOutput(bool bVerbose) {
    std::fflush(stdout);
    const int own = dup(STDOUT_FILENO);
    if (own < 0) return;
    FILE* mine = fdopen(own, "w");
    if (mine == nullptr) {
        close(own);
        return;
    }
    g_verbose = bVerbose;
    int target = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (target >= 0)
        g_startLines = dup(target);
    else
        target = libraryTarget();
    if (target >= 0) {
        dup2(target, STDOUT_FILENO);
        close(target);
    }
    fcntl(own, F_SETFD, FD_CLOEXEC);
    g_out = mine;
}

std::string lastLibraryError() {
    const std::string text = takeStartLines();
    const size_t mark = text.rfind("Error]: ");
    if (mark == std::string::npos) return std::string();
    const size_t end = text.find('\n', mark);
    return text.substr(mark + 8, end == std::string::npos ? std::string::npos : end - mark - 8);
}

void libraryStarted() {
    if (g_startLines < 0) return;
    takeStartLines();
    const int target = libraryTarget();
    if (target >= 0) {
        dup2(target, STDOUT_FILENO);
        close(target);
    }
    close(g_startLines);
    g_startLines = -1;
}

void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string line(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&line[0], line.size() + 1, format, again);
    va_end(again);
    std::lock_guard<std::mutex> lock(g_outMutex);
    std::fputs(line.c_str(), g_out);
    std::fputc('\n', g_out);
    std::fflush(g_out);
}

void complain(const std::string& message) {
    std::fflush(g_out);
    std::fprintf(stderr, "apartment: %s\n", message.c_str());
}

DataFormat parseDataFormat(const std::string& name) {
    if (name == "text") return DataFormat::Text;
    if (name == "hex") return DataFormat::Hex;
    if (name == "quoted") return DataFormat::Quoted;
    throw UsageError("--format: '" + name + "' is not text, hex or quoted");
}

std::string formatData(const void* data, size_t length, DataFormat format, size_t limit) {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    const size_t shown = data == nullptr ? 0 : std::min(length, limit);
    std::string result;
    static const char digits[] = "0123456789abcdef";
    if (format == DataFormat::Quoted) result += '"';
    for (size_t i = 0; i < shown; ++i) {
        const unsigned char c = bytes[i];
        switch (format) {
            case DataFormat::Text:
                result += (c >= 0x20 && c < 0x7f) || c == '\t' ? static_cast<char>(c) : '.';
                break;
            case DataFormat::Hex:
                if (i != 0) result += ' ';
                result += digits[c >> 4];
                result += digits[c & 15];
                break;
            case DataFormat::Quoted:
                if (c == '"' || c == '\\') {
                    result += '\\';
                    result += static_cast<char>(c);
                } else if (c == '\n') {
                    result += "\\n";
                } else if (c == '\t') {
                    result += "\\t";
                } else if (c >= 0x20 && c < 0x7f) {
                    result += static_cast<char>(c);
                } else {
                    result += "\\x";
                    result += digits[c >> 4];
                    result += digits[c & 15];
                }
                break;
        }
    }
    if (format == DataFormat::Quoted) result += '"';
    if (shown < length) result += " ... (" + std::to_string(length) + " bytes)";
    return result;
}

std::string timeOfDay() {
    const auto now = std::chrono::system_clock::now();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000);
    tm local;
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min,
                  local.tm_sec, millis);
    return text;
}

LatencySummary summarise(std::vector<double> samples) {
    LatencySummary s;
    s.count = samples.size();
    if (samples.empty()) return s;
    std::sort(samples.begin(), samples.end());
    // Nearest-rank percentiles.
    auto rank = [&](double p) {
        size_t index = static_cast<size_t>(std::ceil(p * static_cast<double>(samples.size())));
        if (index > 0) --index;
        return samples[std::min(index, samples.size() - 1)];
    };
    s.median = rank(0.5);
    s.p90 = rank(0.9);
    s.p99 = rank(0.99);
    s.max = samples.back();
    double sum = 0;
    for (double v : samples) sum += v;
    s.mean = sum / static_cast<double>(samples.size());
    return s;
}

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Progress::Progress(std::string label) : m_strLabel(std::move(label)), m_dStart(monotonicSeconds()) {}

void Progress::update(size_t done, size_t total) {
    const double now = monotonicSeconds();
    if (now - m_dStart < 2.0 || now - m_dLastShown < 0.25) return;
    m_dLastShown = now;
    m_bShown = true;
    if (total != 0)
        std::fprintf(stderr, "\r%s: %zu/%zu (%.0f s)   ", m_strLabel.c_str(), done, total,
                     now - m_dStart);
    else
        std::fprintf(stderr, "\r%s: %zu (%.0f s)   ", m_strLabel.c_str(), done, now - m_dStart);
    std::fflush(stderr);
}

void Progress::finish() {
    if (!m_bShown) return;
    m_bShown = false;
    std::fprintf(stderr, "\r%s: done%*s\n", m_strLabel.c_str(), 20, "");
}

}  // namespace tool
