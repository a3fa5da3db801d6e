// A small element tree read with expat from hostile text: no DTD, no entities beyond the five
// predefined ones, bounded depth, and the line and byte offset of every element kept for messages.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kv_color {

struct xml_element {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::string text;  // character data directly inside, concatenated
    std::vector<std::unique_ptr<xml_element>> children;
    long line = 0;
    long long offset = 0;

    // The attribute's value, or nullptr.
    const std::string* attribute(const char* key) const;
    // "<Matrix> at line 12 (offset 345)"
    std::string where() const;
};

// Parses `text`; throws color_error (process_list_refused) as "<label>: line L, offset O: why".
std::unique_ptr<xml_element> parse_xml(const std::string& text, const std::string& label);

}  // namespace kv_color
