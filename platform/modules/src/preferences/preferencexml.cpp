#include "preferences/preferencexml.h"

#include <vu/base64.h>

#include <pugixml.hpp>
#include <sstream>

#include "detail/textposition.h"
#include "detail/xmlposition.h"

namespace ZR {
namespace detail {
namespace {

const char* const kFormatVersion = "1";

// True when the bytes are UTF-8 of characters XML 1.0 allows. Carriage returns are
// refused where a reader would turn them into line feeds (element text).
bool isXmlText(const std::string& text, bool allowCarriageReturn) {
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    unsigned long code = 0;
    int length = 0;
    if (c < 0x80) {
      code = c;
      length = 1;
    } else if ((c & 0xE0) == 0xC0) {
      code = c & 0x1F;
      length = 2;
    } else if ((c & 0xF0) == 0xE0) {
      code = c & 0x0F;
      length = 3;
    } else if ((c & 0xF8) == 0xF0) {
      code = c & 0x07;
      length = 4;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (int k = 1; k < length; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    static const unsigned long kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length]) return false;  // overlong form
    const bool allowed = code == 0x9 || code == 0xA || (code == 0xD && allowCarriageReturn) ||
                         (code >= 0x20 && code <= 0xD7FF) || (code >= 0xE000 && code <= 0xFFFD) ||
                         (code >= 0x10000 && code <= 0x10FFFF);
    if (!allowed) return false;
    i += length;
  }
  return true;
}

std::string entryName(std::size_t index) {
  return "entry " + std::to_string(index + 1);
}

void checkEntry(const ZRValue& entry, std::size_t index) {
  if (!entry.isArray() || entry.size() != 3) {
    throw PreferenceFormatError(entryName(index) + " must be an array of three strings (key, " +
                                "description, value), not " + entry.toDebugString());
  }
  static const char* const kFields[] = {"key", "description", "value"};
  for (int field = 0; field < 3; ++field) {
    if (!entry[field].isString()) {
      throw PreferenceFormatError(entryName(index) + ": the " + kFields[field] +
                                  " must be a string, not " +
                                  ZRValue::TypeToString(entry[field].getType()));
    }
  }
  for (int field = 0; field < 2; ++field) {
    if (!isXmlText(entry[field].toString(), true)) {
      throw PreferenceFormatError(entryName(index) + ": the " + kFields[field] +
                                  " holds bytes that are not UTF-8 text");
    }
  }
}

class PositionOf {
public:
  explicit PositionOf(const std::string& text) : fIndex(text) {}
  PreferenceFormatError error(const pugi::xml_node& node, const std::string& reason) const {
    const TextPosition at = positionOfNode(fIndex, node);
    return PreferenceFormatError(reason, at.line, at.column);
  }

private:
  const TextIndex fIndex;
};

ZRValue decodeEntry(const pugi::xml_node& node, const PositionOf& where) {
  for (const pugi::xml_attribute& attribute : node.attributes()) {
    const std::string name = attribute.name();
    if (name != "key" && name != "description" && name != "encoding") {
      throw where.error(node, "unknown attribute \"" + name + "\" on <preference>");
    }
  }
  if (!node.attribute("key")) throw where.error(node, "<preference> has no key attribute");
  std::string value;
  for (const pugi::xml_node& child : node.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      value += child.value();
    } else if (child.type() == pugi::node_element) {
      throw where.error(
          child, "unexpected element <" + std::string(child.name()) + "> inside <preference>");
    }
  }
  const std::string encoding = node.attribute("encoding").value();
  if (encoding == "base64") {
    std::string bytes;
    if (!vu::base64::decode(value, bytes)) throw where.error(node, "the value is not valid base64");
    value = bytes;
  } else if (!encoding.empty()) {
    throw where.error(node, "unknown encoding \"" + encoding + "\" (only base64 is known)");
  }
  ZRValue entry = ZRValue::array();
  entry.arrayPush(std::string(node.attribute("key").value()));
  entry.arrayPush(std::string(node.attribute("description").value()));
  entry.arrayPush(value);
  return entry;
}

}  // namespace

std::string encodePreferences(const std::string& moduleName, const ZRValue& entries) {
  if (!entries.isArray()) {
    throw PreferenceFormatError(
        "the preferences must be an array of entries, each an array of three strings "
        "(key, description, value), not " +
        entries.toDebugString());
  }
  for (std::size_t i = 0; i < entries.size(); ++i) checkEntry(entries[static_cast<int>(i)], i);

  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = document.append_child("preferences");
  root.append_attribute("module") = moduleName.c_str();
  root.append_attribute("version") = kFormatVersion;
  for (const ZRValue& entry : entries.elements()) {
    pugi::xml_node node = root.append_child("preference");
    node.append_attribute("key") = entry[0].toString().c_str();
    node.append_attribute("description") = entry[1].toString().c_str();
    const std::string& value = entry[2].toString();
    if (value.empty()) continue;
    if (isXmlText(value, false)) {
      node.append_child(pugi::node_pcdata).set_value(value.c_str());
    } else {
      node.append_attribute("encoding") = "base64";
      node.append_child(pugi::node_pcdata).set_value(vu::base64::encode(value).c_str());
    }
  }
  std::ostringstream out;
  document.save(out, "  ", pugi::format_indent, pugi::encoding_utf8);
  return out.str();
}

ZRValue decodePreferences(const std::string& text) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(text.data(), text.size(),
                           pugi::parse_default | pugi::parse_ws_pcdata_single, pugi::encoding_utf8);
  if (!parsed) {
    const TextPosition at = TextIndex(text).position(parsed.offset);
    throw PreferenceFormatError(parsed.description(), at.line, at.column);
  }
  const PositionOf where(text);
  const pugi::xml_node root = document.document_element();
  if (std::string(root.name()) != "preferences") {
    throw where.error(
        root, "the root element is <" + std::string(root.name()) + ">, <preferences> was expected");
  }
  const pugi::xml_attribute version = root.attribute("version");
  if (version && std::string(version.value()) != kFormatVersion) {
    throw where.error(root, "format version " + std::string(version.value()) +
                                " is not supported (this reader knows version " + kFormatVersion +
                                ")");
  }
  ZRValue entries = ZRValue::array();
  for (const pugi::xml_node& child : root.children()) {
    if (child.type() == pugi::node_element) {
      if (std::string(child.name()) != "preference") {
        throw where.error(child, "unexpected element <" + std::string(child.name()) +
                                     ">, <preference> was expected");
      }
      entries.arrayPush(decodeEntry(child, where));
    } else if ((child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) &&
               std::string(child.value()).find_first_not_of(" \t\r\n") != std::string::npos) {
      throw where.error(child, "unexpected text inside <preferences>");
    }
  }
  return entries;
}

}  // namespace detail
}  // namespace ZR
