#include "search_criteria.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace vexsim {

namespace {

constexpr char kSpace[] = " \t\r\n\v\f";
constexpr int kDeepest = 50;

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool Holds(const std::string& operation, const std::optional<std::string>& property,
           const std::string& value) {
  if (operation == "exists") return property.has_value() == (value == "true");
  if (!property) return operation == "!=" || operation == "doesNotContain";
  if (operation == "=") return *property == value;
  if (operation == "!=") return *property != value;
  if (operation == "derivedfrom") {
    return property->compare(0, value.size(), value) == 0 &&
           (property->size() == value.size() || (*property)[value.size()] == '.');
  }
  const bool contains = Lower(*property).find(Lower(value)) != std::string::npos;
  return contains == (operation == "contains");
}

class Parser {
 public:
  explicit Parser(const std::string& text) : text_(text) {}

  std::optional<SearchFilter> Whole() {
    if (text_ == "*") return SearchFilter([](const PropertyReader&) { return true; });
    std::optional<SearchFilter> filter = Alternatives(0);
    SkipSpace();
    return at_ == text_.size() ? filter : std::nullopt;
  }

 private:
  std::optional<SearchFilter> Alternatives(int depth) {
    std::optional<SearchFilter> left = Together(depth);
    while (left && Skip("or")) {
      std::optional<SearchFilter> right = Together(depth);
      if (!right) return std::nullopt;
      left = [a = *left, b = *right](const PropertyReader& read) { return a(read) || b(read); };
    }
    return left;
  }

  std::optional<SearchFilter> Together(int depth) {
    std::optional<SearchFilter> left = Single(depth);
    while (left && Skip("and")) {
      std::optional<SearchFilter> right = Single(depth);
      if (!right) return std::nullopt;
      left = [a = *left, b = *right](const PropertyReader& read) { return a(read) && b(read); };
    }
    return left;
  }

  std::optional<SearchFilter> Single(int depth) {
    SkipSpace();
    if (at_ == text_.size() || text_[at_] != '(') return Comparison();
    if (depth > kDeepest) return std::nullopt;
    ++at_;
    std::optional<SearchFilter> inner = Alternatives(depth + 1);
    SkipSpace();
    if (at_ == text_.size() || text_[at_] != ')') return std::nullopt;
    ++at_;
    return inner;
  }

  std::optional<SearchFilter> Comparison() {
    const std::string property = Word();
    const std::string operation = Word();
    static const std::vector<std::string> kOperations = {
        "=", "!=", "contains", "doesNotContain", "derivedfrom", "exists"};
    const std::optional<std::string> value = operation == "exists" ? Word() : Quoted();
    if (property.empty() || !value ||
        std::find(kOperations.begin(), kOperations.end(), operation) == kOperations.end())
      return std::nullopt;
    return SearchFilter([property, operation, value = *value](const PropertyReader& read) {
      return Holds(operation, read(property), value);
    });
  }

  std::string Word() {
    SkipSpace();
    const std::size_t end =
        std::min(text_.find_first_of(std::string(kSpace) + ")", at_), text_.size());
    const std::string word = text_.substr(at_, end - at_);
    at_ = end;
    return word;
  }

  // A backslash takes a quotation mark or a backslash as it is.
  std::optional<std::string> Quoted() {
    SkipSpace();
    if (at_ == text_.size() || text_[at_] != '"') return std::nullopt;
    std::string value;
    for (++at_; at_ < text_.size(); ++at_) {
      if (text_[at_] == '"') {
        ++at_;
        return value;
      }
      if (text_[at_] == '\\' && at_ + 1 < text_.size()) ++at_;
      value += text_[at_];
    }
    return std::nullopt;
  }

  bool Skip(const std::string& word) {
    const std::size_t before = at_;
    if (Word() == word) return true;
    at_ = before;
    return false;
  }

  void SkipSpace() { at_ = std::min(text_.find_first_not_of(kSpace, at_), text_.size()); }

  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

std::optional<SearchFilter> ParseSearchCriteria(const std::string& text) {
  return Parser(text).Whole();
}

}  // namespace vexsim
