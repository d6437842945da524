// Command-line parsing for the apartment tool: options of the form
// "--name value", "--name=value" or "--name" (flags), positional arguments,
// and the checks that turn a bad argument into a UsageError (exit code 2).
#ifndef APARTMENT_TOOL_ARGS_H
#define APARTMENT_TOOL_ARGS_H

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// A mistake in the command line; the message is one line for stderr.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failure while running (unreachable remote, time-out, I/O).
struct RuntimeError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct OptionDef {
    const char* name;  // without the leading "--"
    bool takesValue;
};

// The parsed arguments of one subcommand. "--help"/"-h" is always known;
// "--" ends the options. A later value of the same option replaces an
// earlier one, except through all(), which returns every value in order.
class Args {
public:
    // Throws UsageError for an unknown option or a missing value.
    Args(const std::vector<std::string>& tokens, const std::vector<OptionDef>& defs);

    bool help() const { return m_bHelp; }
    bool has(const std::string& name) const { return m_values.count(name) != 0; }
    std::string text(const std::string& name, const std::string& fallback) const;
    std::vector<std::string> all(const std::string& name) const;
    // A decimal integer within [min, max]; UsageError otherwise.
    long number(const std::string& name, long fallback, long min, long max) const;
    double real(const std::string& name, double fallback, double min, double max) const;
    // Comma-separated decimal integers, each within [min, max].
    std::vector<long> numberList(const std::string& name, const std::vector<long>& fallback,
                                 long min, long max) const;

    const std::vector<std::string>& positionals() const { return m_positionals; }
    // UsageError unless there are between min and max positionals.
    void expectPositionals(size_t min, size_t max, const char* what) const;

private:
    bool m_bHelp = false;
    std::map<std::string, std::vector<std::string>> m_values;
    std::vector<std::string> m_positionals;
};

long parseNumber(const std::string& text, const std::string& what, long min, long max);

// An apartment URL, "tcp://<dotted IPv4>:<port>".
struct ApartmentUrl {
    std::string host;
    unsigned int port = 0;
    std::string str() const { return "tcp://" + host + ":" + std::to_string(port); }
};

// Parses and checks a URL; port 0 only when allowed (a listening address
// that lets the tool pick). Throws UsageError with the reason.
ApartmentUrl parseApartmentUrl(const std::string& text, bool allowPortZero);

}  // namespace tool

#endif
