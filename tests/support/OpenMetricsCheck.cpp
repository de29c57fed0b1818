#include "support/OpenMetricsCheck.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <set>
#include <sstream>

namespace vok {
namespace test {

namespace {

bool IsMetricName(const std::string& name) {
    if (name.empty() || std::isdigit(static_cast<unsigned char>(name[0]))) {
        return false;
    }
    for (char c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != ':') {
            return false;
        }
    }
    return true;
}

bool IsLabelName(const std::string& name) {
    return IsMetricName(name) && name.find(':') == std::string::npos;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

class Checker {
  public:
    explicit Checker(MetricsCheck* result) : result_(result) {}

    void Check(const std::string& text) {
        if (text.empty() || text.back() != '\n') {
            Error(0, "exposition does not end with a line feed");
        }
        std::vector<std::string> lines;
        std::string line;
        std::istringstream in(text);
        while (std::getline(in, line)) {
            lines.push_back(line);
        }
        bool eof = false;
        for (size_t i = 0; i < lines.size(); ++i) {
            const size_t number = i + 1;
            if (eof) {
                Error(number, "line after # EOF");
                break;
            }
            if (lines[i] == "# EOF") {
                eof = true;
            } else if (lines[i].empty()) {
                Error(number, "empty line");
            } else if (lines[i][0] == '#') {
                Metadata(number, lines[i]);
            } else {
                Sample(number, lines[i]);
            }
        }
        if (!eof) {
            Error(lines.size(), "no # EOF at the end");
        }
    }

  private:
    void Error(size_t line, const std::string& text) {
        result_->errors.push_back("line " + std::to_string(line) + ": " + text);
    }

    // "# HELP name text" or "# TYPE name type".
    void Metadata(size_t line, const std::string& text) {
        std::istringstream in(text);
        std::string hash, keyword, name;
        in >> hash >> keyword >> name;
        if (hash != "#" || (keyword != "HELP" && keyword != "TYPE" && keyword != "UNIT")) {
            Error(line, "comment that is not HELP, TYPE, UNIT or EOF");
            return;
        }
        if (!IsMetricName(name)) {
            Error(line, "bad family name \"" + name + "\"");
            return;
        }
        if (name != current_) {
            if (!seen_.insert(name).second) {
                Error(line, "family " + name + " appears twice");
            }
            current_ = name;
            currentHasSamples_ = false;
            metadata_.clear();
        }
        if (currentHasSamples_) {
            Error(line, keyword + " after the samples of " + name);
        }
        if (!metadata_.insert(keyword).second) {
            Error(line, keyword + " twice for " + name);
        }
        MetricFamily& family = result_->families[name];
        const std::string prefix = "# " + keyword + " " + name;
        const std::string rest = text.size() > prefix.size() ? text.substr(prefix.size() + 1) : "";
        if (keyword == "TYPE") {
            static const std::set<std::string> kTypes = {"counter",        "gauge",   "info",
                                                         "stateset",       "unknown", "histogram",
                                                         "gaugehistogram", "summary"};
            if (kTypes.count(rest) == 0) {
                Error(line, "unknown type \"" + rest + "\"");
            }
            family.type = rest;
            if ((rest == "counter" && EndsWith(name, "_total")) ||
                (rest == "info" && EndsWith(name, "_info"))) {
                Error(line, "family name " + name + " ends with its sample suffix");
            }
        } else if (keyword == "HELP") {
            for (size_t i = 0; i < rest.size(); ++i) {
                if (rest[i] == '\\' &&
                    (i + 1 >= rest.size() ||
                     (rest[i + 1] != '\\' && rest[i + 1] != 'n' && rest[i + 1] != '"'))) {
                    Error(line, "bad escape in HELP");
                }
                if (rest[i] == '\\') {
                    ++i;
                } else if (rest[i] == '"') {
                    Error(line, "unescaped double quote in HELP");
                }
            }
            family.help = rest;
        }
    }

    // "name{labels} value" or "name value".
    void Sample(size_t line, const std::string& text) {
        size_t at = 0;
        while (at < text.size() && text[at] != '{' && text[at] != ' ') {
            ++at;
        }
        const std::string name = text.substr(0, at);
        if (!IsMetricName(name)) {
            Error(line, "bad sample name \"" + name + "\"");
            return;
        }
        std::string labels;
        if (at < text.size() && text[at] == '{') {
            const size_t begin = at;
            if (!Labels(line, text, &at)) {
                return;
            }
            labels = text.substr(begin, at - begin);
        }
        if (at >= text.size() || text[at] != ' ') {
            Error(line, "no space before the value");
            return;
        }
        const std::string valueText = text.substr(at + 1);
        char* end = nullptr;
        const double value = std::strtod(valueText.c_str(), &end);
        if (valueText.empty() || *end != '\0' || valueText.find(' ') != std::string::npos) {
            Error(line, "bad value \"" + valueText + "\"");
            return;
        }
        if (current_.empty()) {
            Error(line, "sample before any family");
            return;
        }
        currentHasSamples_ = true;
        MetricFamily& family = result_->families[current_];
        const std::string& type = family.type.empty() ? "unknown" : family.type;
        bool nameOk = false;
        if (type == "counter") {
            nameOk = name == current_ + "_total" || name == current_ + "_created";
            if (std::isnan(value) || value < 0) {
                Error(line, "counter value below 0");
            }
        } else if (type == "info") {
            nameOk = name == current_ + "_info";
            if (value != 1) {
                Error(line, "info value is not 1");
            }
        } else if (type == "gauge" || type == "unknown") {
            nameOk = name == current_;
        } else {
            nameOk = true;  // Types the framework does not write are not checked further.
        }
        if (!nameOk) {
            Error(line, "sample " + name + " does not belong to " + type + " family " + current_);
        }
        if (!family.samples.emplace(name + labels, value).second) {
            Error(line, "sample " + name + labels + " twice");
        }
    }

    // Checks "{name="value",...}" starting at *at; leaves *at after the closing brace.
    bool Labels(size_t line, const std::string& text, size_t* at) {
        std::set<std::string> names;
        size_t i = *at + 1;
        while (i < text.size() && text[i] != '}') {
            size_t nameEnd = i;
            while (nameEnd < text.size() && text[nameEnd] != '=') {
                ++nameEnd;
            }
            const std::string label = text.substr(i, nameEnd - i);
            if (!IsLabelName(label) || nameEnd + 1 >= text.size() || text[nameEnd + 1] != '"') {
                Error(line, "bad label near \"" + text.substr(i) + "\"");
                return false;
            }
            if (!names.insert(label).second) {
                Error(line, "label " + label + " twice");
            }
            i = nameEnd + 2;
            while (i < text.size() && text[i] != '"') {
                if (text[i] == '\\') {
                    if (i + 1 >= text.size() ||
                        (text[i + 1] != '\\' && text[i + 1] != 'n' && text[i + 1] != '"')) {
                        Error(line, "bad escape in label " + label);
                        return false;
                    }
                    ++i;
                }
                ++i;
            }
            if (i >= text.size()) {
                Error(line, "unterminated label value");
                return false;
            }
            ++i;  // Closing quote.
            if (i < text.size() && text[i] == ',') {
                ++i;
            } else if (i >= text.size() || text[i] != '}') {
                Error(line, "labels not separated by commas");
                return false;
            }
        }
        if (i >= text.size()) {
            Error(line, "unterminated label set");
            return false;
        }
        *at = i + 1;
        return true;
    }

    MetricsCheck* result_;
    std::string current_;  // Family of the lines being read.
    bool currentHasSamples_ = false;
    std::set<std::string> metadata_;  // HELP/TYPE/UNIT lines of the current family.
    std::set<std::string> seen_;      // Every family so far.
};

}  // namespace

std::string MetricsCheck::Report() const {
    std::string report;
    for (const std::string& error : errors) {
        report += error + "\n";
    }
    return report;
}

double MetricsCheck::Value(const std::string& name) const {
    auto family = families.find(name);
    if (family == families.end() || family->second.samples.size() != 1) {
        return NAN;
    }
    return family->second.samples.begin()->second;
}

MetricsCheck CheckOpenMetrics(const std::string& text) {
    MetricsCheck result;
    Checker(&result).Check(text);
    return result;
}

}  // namespace test
}  // namespace vok
