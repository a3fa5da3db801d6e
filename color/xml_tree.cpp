// The expat reader behind xml_tree.h. Any DOCTYPE stops the parse, so no entity can be declared
// and nothing external is ever loaded.
#include "color/xml_tree.h"

#include <expat.h>

#include "color/color_error.h"

namespace kv_color {
namespace {

constexpr size_t max_depth = 32;

struct tree_builder {
    XML_Parser parser = nullptr;
    std::unique_ptr<xml_element> root;
    std::vector<xml_element*> open;
    std::string failure;

    void stop(const std::string& why) {
        if (failure.empty()) failure = why;
        XML_StopParser(parser, XML_FALSE);
    }
};

void XMLCALL on_start(void* data, const XML_Char* name, const XML_Char** attributes) {
    auto* b = static_cast<tree_builder*>(data);
    if (b->open.size() >= max_depth) return b->stop("elements nested deeper than 32");
    if (b->open.empty() && b->root) return b->stop("a second root element");
    auto e = std::make_unique<xml_element>();
    e->name = name;
    e->line = long(XML_GetCurrentLineNumber(b->parser));
    e->offset = (long long)XML_GetCurrentByteIndex(b->parser);
    for (const XML_Char** a = attributes; a[0] != nullptr; a += 2) {
        e->attributes.emplace_back(a[0], a[1]);
    }
    xml_element* raw = e.get();
    if (b->open.empty()) {
        b->root = std::move(e);
    } else {
        b->open.back()->children.push_back(std::move(e));
    }
    b->open.push_back(raw);
}

void XMLCALL on_end(void* data, const XML_Char*) {
    static_cast<tree_builder*>(data)->open.pop_back();
}

void XMLCALL on_text(void* data, const XML_Char* text, int length) {
    auto* b = static_cast<tree_builder*>(data);
    if (!b->open.empty()) b->open.back()->text.append(text, size_t(length));
}

void XMLCALL on_doctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<tree_builder*>(data)->stop("a DOCTYPE (DTD) is not accepted");
}

void XMLCALL on_entity(void* data, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                       const XML_Char*, const XML_Char*, const XML_Char*) {
    static_cast<tree_builder*>(data)->stop("an entity declaration is not accepted");
}

struct parser_deleter {
    void operator()(XML_Parser p) const { XML_ParserFree(p); }
};

}  // namespace

const std::string* xml_element::attribute(const char* key) const {
    for (const auto& a : attributes) {
        if (a.first == key) return &a.second;
    }
    return nullptr;
}

std::string xml_element::where() const {
    return "<" + escaped(name, 60) + "> at line " + std::to_string(line) + " (offset " +
           std::to_string(offset) + ")";
}

std::unique_ptr<xml_element> parse_xml(const std::string& text, const std::string& label) {
    std::unique_ptr<XML_ParserStruct, parser_deleter> parser(XML_ParserCreate("UTF-8"));
    if (!parser) throw std::bad_alloc();
    tree_builder b;
    b.parser = parser.get();
    XML_SetUserData(b.parser, &b);
    XML_SetElementHandler(b.parser, on_start, on_end);
    XML_SetCharacterDataHandler(b.parser, on_text);
    XML_SetStartDoctypeDeclHandler(b.parser, on_doctype);
    XML_SetEntityDeclHandler(b.parser, on_entity);
    XML_SetParamEntityParsing(b.parser, XML_PARAM_ENTITY_PARSING_NEVER);
    const bool ok = text.size() <= size_t(1) << 30 &&
                    XML_Parse(b.parser, text.data(), int(text.size()), XML_TRUE) == XML_STATUS_OK;
    if (!ok || !b.root) {
        const std::string why = !b.failure.empty() ? b.failure
                                : !ok              ? XML_ErrorString(XML_GetErrorCode(b.parser))
                                                   : "no root element";
        throw color_error(
            status::process_list_refused,
            label + ": line " + std::to_string(XML_GetCurrentLineNumber(b.parser)) + ", offset " +
                std::to_string((long long)XML_GetCurrentByteIndex(b.parser)) + ": " + escaped(why));
    }
    return std::move(b.root);
}

}  // namespace kv_color
