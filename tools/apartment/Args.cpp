#include "Args.h"

#include <cerrno>
#include <cstdlib>

namespace tool {

Args::Args(const std::vector<std::string>& tokens, const std::vector<OptionDef>& defs) {
    bool optionsEnded = false;
    for (size_t i = 0; i < tokens.size(); ++i) {
        const std::string& token = tokens[i];
        if (optionsEnded || token.size() < 2 || token[0] != '-') {
            m_positionals.push_back(token);
            continue;
        }
        if (token == "--") {
            optionsEnded = true;
            continue;
        }
        if (token == "-h" || token == "--help") {
            m_bHelp = true;
            continue;
        }
        if (token.compare(0, 2, "--") != 0) throw UsageError("unknown option '" + token + "'");
        std::string name = token.substr(2);
        std::string value;
        bool inlineValue = false;
        const size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.erase(eq);
            inlineValue = true;
        }
        const OptionDef* def = nullptr;
        for (const OptionDef& s : defs)
            if (name == s.name) def = &s;
        if (def == nullptr) throw UsageError("unknown option '--" + name + "'");
        if (def->takesValue && !inlineValue) {
            if (i + 1 >= tokens.size()) throw UsageError("option '--" + name + "' needs a value");
            value = tokens[++i];
        } else if (!def->takesValue && inlineValue) {
            throw UsageError("option '--" + name + "' takes no value");
        }
        m_values[name].push_back(value);
    }
}

std::string Args::text(const std::string& name, const std::string& fallback) const {
    auto it = m_values.find(name);
    return it == m_values.end() ? fallback : it->second.back();
}

std::vector<std::string> Args::all(const std::string& name) const {
    auto it = m_values.find(name);
    return it == m_values.end() ? std::vector<std::string>() : it->second;
}

long parseNumber(const std::string& text, const std::string& what, long min, long max) {
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw UsageError(what + ": '" + text + "' is not a number");
    if (value < min || value > max)
        throw UsageError(what + ": " + text + " is outside " + std::to_string(min) + ".." +
                         std::to_string(max));
    return value;
}

long Args::number(const std::string& name, long fallback, long min, long max) const {
    if (!has(name)) return fallback;
    return parseNumber(text(name, ""), "--" + name, min, max);
}

double Args::real(const std::string& name, double fallback, double min, double max) const {
    if (!has(name)) return fallback;
    const std::string value = text(name, "");
    char* end = nullptr;
    const double parsed = std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || !(parsed >= min && parsed <= max))
        throw UsageError("--" + name + ": '" + value + "' is not a number in " +
                         std::to_string(min) + ".." + std::to_string(max));
    return parsed;
}

std::vector<long> Args::numberList(const std::string& name, const std::vector<long>& fallback,
                                   long min, long max) const {
    if (!has(name)) return fallback;
    std::vector<long> result;
    std::string list = text(name, "");
    size_t start = 0;
    for (;;) {
        const size_t comma = list.find(',', start);
        result.push_back(parseNumber(list.substr(start, comma - start), "--" + name, min, max));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return result;
}

void Args::expectPositionals(size_t min, size_t max, const char* what) const {
    if (m_positionals.size() < min) throw UsageError(std::string("missing ") + what);
    if (m_positionals.size() > max)
        throw UsageError("unexpected argument '" + m_positionals[max] + "'");
}

ApartmentUrl parseApartmentUrl(const std::string& text, bool allowPortZero) {
    const std::string scheme = "tcp://";
    const std::string expected = " (expected tcp://<IPv4>:<port>)";
    if (text.compare(0, scheme.size(), scheme) != 0)
        throw UsageError("malformed URL '" + text + "'" + expected);
    const std::string rest = text.substr(scheme.size());
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos) throw UsageError("malformed URL '" + text + "'" + expected);
    ApartmentUrl url;
    url.host = rest.substr(0, colon);
    // Four decimal parts of at most three digits, each up to 255.
    int parts = 0;
    size_t pos = 0;
    bool ok = !url.host.empty();
    while (ok && pos <= url.host.size()) {
        const size_t dot = url.host.find('.', pos);
        const std::string part = url.host.substr(pos, dot == std::string::npos ? std::string::npos
                                                                                 : dot - pos);
        ok = !part.empty() && part.size() <= 3 &&
             part.find_first_not_of("0123456789") == std::string::npos && std::stoi(part) <= 255;
        ++parts;
        if (dot == std::string::npos) break;
        pos = dot + 1;
    }
    if (!ok || parts != 4)
        throw UsageError("malformed URL '" + text + "': '" + url.host + "' is not an IPv4 address");
    const std::string port = rest.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        throw UsageError("malformed URL '" + text + "': bad port" + expected);
    const long value = std::stol(port);
    if (value > 65535 || (value == 0 && !allowPortZero))
        throw UsageError("malformed URL '" + text + "': port must be 1..65535");
    url.port = static_cast<unsigned int>(value);
    return url;
}

}  // namespace tool
