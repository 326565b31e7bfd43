// The whole configuration as one JSON text, for backups and other machines. The text has a line for
// each policy and each rule. Equal configurations give equal bytes.
#ifndef ZEVOBW_TOOL_MODEL_CONFIG_JSON_HPP
#define ZEVOBW_TOOL_MODEL_CONFIG_JSON_HPP

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "model/store.hpp"

namespace tool {

struct ConfigText {
    std::string text;                   // without its last line end
    std::map<int, std::string> sources; // where the entry of a line is stored
};

// Policies before rules, else in the order given. An owner whom the user database does not know is
// written without a name.
ConfigText ConfigToText(const std::vector<Setting> &settings);

// Something to say about a line of the text, counted from 1.
struct Remark {
    int line = 0;
    std::string text;
};

struct Configuration {
    std::vector<Setting> settings;
    std::vector<Remark> faults; // by line; if there is any, do not use the entries
    std::vector<Remark> notes;  // owners that have another id or name here
};

// Reads such a text and checks all of it. An owner is found by its name; if the user database does
// not know the name, by its id, unless that id belongs to another account here.
Configuration ConfigFromText(std::string_view text);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_CONFIG_JSON_HPP
