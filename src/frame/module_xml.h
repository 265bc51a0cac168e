/// Reading of the process's XML file: elements are reached by their names, their text is the value.
#pragma once

#include <stdint.h>

#include <initializer_list>
#include <memory>
#include <string>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

namespace Emos {

inline constexpr uint32_t kXmlErrMemory = 100;     ///< out of memory
inline constexpr uint32_t kXmlErrNotLoaded = 101;  ///< a look-up before a successful Load
inline constexpr uint32_t kXmlErrElement = 102;    ///< root or element missing

/// One XML document. Not shared between threads.
class Parser {
 public:
  Parser();
  ~Parser();
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// Reads `path`, whose root element must be `rootName`.
  /// @retval kXmlErrMemory, kXmlErrElement  @retval other tinyxml2's own load error
  [[nodiscard]] uint32_t Load(const char* path, const char* rootName);

  /// Text of the element reached from the root by taking the first child of each name, without the blanks
  /// around it (the space character alone counts). An element without text gives an empty value and 0.
  /// @retval kXmlErrNotLoaded, kXmlErrElement, kXmlErrMemory; `out` is untouched then
  [[nodiscard]] uint32_t GetText(std::initializer_list<const char*> names, std::string& out) const;

 private:
  std::unique_ptr<tinyxml2::XMLDocument> document_;
  const tinyxml2::XMLElement* root_ = nullptr;  // belongs to document_; null until loaded
};

}  // namespace Emos
