// Output of the apartment tool: what goes to standard output (results, one
// line per event, written whole under a lock because library threads print
// too), error lines on stderr, payload formatting and latency statistics.
#ifndef APARTMENT_TOOL_OUTPUT_H
#define APARTMENT_TOOL_OUTPUT_H

#include <cstddef>
#include <string>
#include <vector>

namespace tool {

// The library writes its diagnostics to standard output. The tool keeps the
// real standard output for its own lines and sends the library's to stderr
// (verbose) or discards them, so that scripts can read stdout. Call once,
// before the library is initialised.
void separateLibraryOutput(bool bVerbose);
// Until libraryStarted, the library's lines are also kept aside: this takes
// them and returns the text after "Error]: " of the last error line among
// them ("" when none), so that a start that failed for another reason than
// its address can say so. Call from the thread that initialises.
std::string lastLibraryError();
// The apartment is up: the library's lines go straight where
// separateLibraryOutput sends them from now on.
void libraryStarted();

// One whole line on the tool's standard output, flushed; callable from any
// thread. The newline is added.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// One line on stderr, prefixed "apartment: ".
void complain(const std::string& message);

enum class DataFormat { Text, Hex, Quoted };
// UsageError for another name.
DataFormat parseDataFormat(const std::string& name);
// Text: the bytes as they are (non-printable ones as '.'); Hex: two digits
// per byte; Quoted: a C string literal. Long payloads are cut after `limit`
// bytes with a note of the full length.
std::string formatData(const void* data, size_t length, DataFormat format, size_t limit = 256);

// Local wall-clock time of day, "HH:MM:SS.mmm".
std::string timeOfDay();

// Latency figures over a set of samples in microseconds.
struct LatencySummary {
    size_t count = 0;
    double median = 0, p90 = 0, p99 = 0, max = 0, mean = 0;
};
LatencySummary summarise(std::vector<double> samples);

// A line on stderr that reports progress of a long step: silent for the
// first two seconds, then refreshed at most four times a second; finish()
// ends the line if one was shown.
class Progress {
public:
    explicit Progress(std::string label);
    ~Progress() { finish(); }
    void update(size_t done, size_t total);
    void finish();

private:
    std::string m_strLabel;
    double m_dStart;
    double m_dLastShown = 0;
    bool m_bShown = false;
};

// Seconds on the monotonic clock, for measuring.
double monotonicSeconds();

}  // namespace tool

#endif
