#include "support/OpenMetricsCheck.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <set>
#include <vector>

namespace vok {
namespace test {

namespace {

// Length of the metric (or, without colons, label) name at text[at], 0 when none starts there.
size_t NameAt(const std::string& text, size_t at, bool label) {
    size_t end = at;
    while (end < text.size() &&
           (std::isalpha(static_cast<unsigned char>(text[end])) || text[end] == '_' ||
            (!label && text[end] == ':') ||
            (end > at && std::isdigit(static_cast<unsigned char>(text[end]))))) {
        ++end;
    }
    return end - at;
}

// The end of an escaped text at text[at] (\\, \n and \" only; no bare '"' or line feed):
// the index of the first character after it, or npos when a bad escape comes first.
size_t EscapedEnd(const std::string& text, size_t at) {
    for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' &&
            (++at >= text.size() || std::string("\\n\"").find(text[at]) == std::string::npos)) {
            return std::string::npos;
        }
    }
    return at;
}

// Reads "{name="value",...}" at text[*at] into names; false when malformed.
bool ReadLabels(const std::string& text, size_t* at, std::vector<std::string>* names) {
    size_t i = *at + 1;
    while (i < text.size() && text[i] != '}') {
        const size_t length = NameAt(text, i, true);
        if (length == 0 || text.compare(i + length, 2, "=\"") != 0) {
            return false;
        }
        names->push_back(text.substr(i, length));
        i = EscapedEnd(text, i + length + 2);
        if (i >= text.size() || text[i] != '"') {
            return false;
        }
        if (++i < text.size() && text[i] == ',') {
            ++i;
        } else if (i >= text.size() || text[i] != '}') {
            return false;
        }
    }
    *at = i + 1;
    return i < text.size();
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::string JoinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::string MetricsCheck::Report() const {
    return JoinLines(errors);
}

double MetricsCheck::Value(const std::string& name) const {
    auto family = families.find(name);
    return family == families.end() || family->second.samples.size() != 1
               ? NAN
               : family->second.samples.begin()->second;
}

MetricsCheck CheckOpenMetrics(const std::string& text) {
    static const std::set<std::string> kTypes = {"counter",  "gauge",    "info",
                                                 "stateset", "unknown",  "gaugehistogram",
                                                 "summary",  "histogram"};
    MetricsCheck result;
    auto error = [&result](size_t line, const std::string& what) {
        result.errors.push_back("line " + std::to_string(line) + ": " + what);
    };
    const bool ends = EndsWith(text, "\n# EOF\n") || text == "# EOF\n";
    if (!ends) {
        error(0, "does not end with \"# EOF\" and a line feed");
    }
    const size_t body = ends ? text.size() - 6 : text.size();
    std::string family;  // Family of the lines being read.
    bool familyHasSamples = false;
    std::set<std::string> metadata;  // HELP/TYPE/UNIT lines of the current family.
    size_t line = 0;
    for (size_t at = 0, next; at < body; at = next + 1) {
        next = std::min(text.find('\n', at), text.size());
        const std::string content = text.substr(at, next - at);
        ++line;
        if (content.compare(0, 2, "# ") == 0) {
            const std::string keyword = content.substr(2, 4);
            const size_t length = content.size() > 8 ? NameAt(content, 7, false) : 0;
            if ((keyword != "HELP" && keyword != "TYPE" && keyword != "UNIT") ||
                content.compare(6, 1, " ") != 0 || length == 0 ||
                content.compare(7 + length, 1, " ") != 0) {
                error(line, "bad metadata: " + content);
                continue;
            }
            const std::string name = content.substr(7, length);
            if (name != family) {
                if (result.families.count(name) != 0) {
                    error(line, "family " + name + " appears twice");
                }
                family = name;
                familyHasSamples = false;
                metadata.clear();
            }
            MetricFamily& entry = result.families[family];
            const std::string rest = content.substr(8 + length);
            if (familyHasSamples || !metadata.insert(keyword).second) {
                error(line, keyword + " twice or after the samples of " + family);
            }
            if (keyword == "TYPE") {
                entry.type = rest;
                if (kTypes.count(rest) == 0 || (rest == "counter" && EndsWith(family, "_total")) ||
                    (rest == "info" && EndsWith(family, "_info"))) {
                    error(line, "bad type \"" + rest + "\" for " + family);
                }
            } else if (keyword == "HELP") {
                entry.help = rest;
                if (EscapedEnd(rest, 0) != rest.size()) {
                    error(line, "badly escaped HELP");
                }
            }
            continue;
        }
        const size_t nameLength = NameAt(content, 0, false);
        size_t pos = nameLength;
        std::vector<std::string> labelNames;
        if (nameLength == 0 ||
            (pos < content.size() && content[pos] == '{' &&
             !ReadLabels(content, &pos, &labelNames)) ||
            pos >= content.size() || content[pos] != ' ') {
            error(line, "not a well-formed sample: " + content);
            continue;
        }
        if (std::set<std::string>(labelNames.begin(), labelNames.end()).size() !=
            labelNames.size()) {
            error(line, "a label twice");
        }
        const std::string labels =
            pos > nameLength ? content.substr(nameLength + 1, pos - nameLength - 2) : "";
        char* valueEnd = nullptr;
        const std::string valueText = content.substr(pos + 1);
        const double value = std::strtod(valueText.c_str(), &valueEnd);
        const std::string name = content.substr(0, nameLength);
        const std::string type = family.empty() ? "" : result.families[family].type;
        const bool belongs =
            (type == "counter" && (name == family + "_total" || name == family + "_created")) ||
            (type == "info" && name == family + "_info" && value == 1) ||
            ((type == "gauge" || type == "unknown") && name == family) ||
            (kTypes.count(type) != 0 && type != "counter" && type != "info" && type != "gauge" &&
             type != "unknown");
        if (valueText.empty() || *valueEnd != '\0' || (type == "counter" && !(value >= 0))) {
            error(line, "bad value " + valueText);
        }
        if (!belongs) {
            error(line, "sample " + name + " does not belong to " + type + " family " + family);
        }
        if (!family.empty() &&
            !result.families[family].samples.emplace(name + "{" + labels + "}", value).second) {
            error(line, "sample " + name + "{" + labels + "} twice");
        }
        familyHasSamples = true;
    }
    return result;
}

}  // namespace test
}  // namespace vok
