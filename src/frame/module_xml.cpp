#include "frame/module_xml.h"

#include <tinyxml2.h>

#include <new>
#include <string_view>

namespace Emos {
namespace {

std::string_view TrimSpaces(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

Parser::Parser() : document_(new (std::nothrow) tinyxml2::XMLDocument) {}
Parser::~Parser() = default;

uint32_t Parser::Load(const char* path, const char* rootName) {
  root_ = nullptr;
  if (document_ == nullptr) return kXmlErrMemory;
  try {
    const tinyxml2::XMLError error = document_->LoadFile(path);
    if (error != tinyxml2::XML_SUCCESS) return static_cast<uint32_t>(error);
  } catch (const std::bad_alloc&) {
    return kXmlErrMemory;
  }
  root_ = document_->FirstChildElement(rootName);
  return root_ == nullptr ? kXmlErrElement : 0;
}

uint32_t Parser::GetText(std::initializer_list<const char*> names, std::string& out) const {
  if (root_ == nullptr) return kXmlErrNotLoaded;
  const tinyxml2::XMLElement* element = root_;
  for (const char* name : names) {
    element = element->FirstChildElement(name);
    if (element == nullptr) return kXmlErrElement;
  }
  const char* text = element->GetText();
  try {
    out = TrimSpaces(text == nullptr ? "" : text);
  } catch (const std::bad_alloc&) {
    return kXmlErrMemory;
  }
  return 0;
}

}  // namespace Emos
