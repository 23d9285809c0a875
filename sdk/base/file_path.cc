#include "sdk/base/file_path.h"

#include <array>
#include <cctype>
#include <string>
#include <string_view>

namespace tarn_base {

namespace {

constexpr std::string_view::size_type kNpos = std::string_view::npos;

// Final extensions that mark a compressed file; together with a short extension in
// front of them ("tar.gz") they form one extension.
constexpr std::array<std::string_view, 7> kCompressionExtensions = {"gz",  "bz2", "xz",  "z",
                                                                    "zst", "lz",  "lzma"};
// The longest extension in front of a compression extension that still joins it:
// "tar", "json", "log" do; "backup" in "db.backup.gz" does not.
constexpr size_t kMaxInnerExtensionLength = 4;

bool EqualsIgnoreAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

bool IsCompressionExtension(std::string_view extension) {
  for (std::string_view known : kCompressionExtensions) {
    if (EqualsIgnoreAsciiCase(extension, known)) return true;
  }
  return false;
}

// `path` without trailing separators, except that a path made only of separators
// keeps one ("/" stays the root).
std::string_view StripTrailingSeparators(std::string_view path) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == FilePath::kSeparator) --end;
  return path.substr(0, end);
}

// The text after the last separator, as is: "" for a path ending in a separator.
std::string_view LastComponent(std::string_view path) {
  size_t last_separator = path.rfind(FilePath::kSeparator);
  return last_separator == kNpos ? path : path.substr(last_separator + 1);
}

// Where the extension of `name` (one path component) starts, or npos when it has none.
// Leading dots belong to the name (".hidden", "..."), so the extension is the part
// from the last dot after the first other character. A trailing dot is an extension
// of its own ("out." has "."), so the suffix goes in front of it like any other.
size_t ExtensionStart(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return kNpos;
  size_t name_start = name.find_first_not_of(FilePath::kExtensionSeparator);
  if (name_start == kNpos) return kNpos;  // Only dots.
  size_t last_dot = name.rfind(FilePath::kExtensionSeparator);
  if (last_dot == kNpos || last_dot < name_start) return kNpos;

  if (!IsCompressionExtension(name.substr(last_dot + 1))) return last_dot;
  size_t inner_dot = name.rfind(FilePath::kExtensionSeparator, last_dot - 1);
  if (inner_dot == kNpos || inner_dot < name_start) return last_dot;
  size_t inner_length = last_dot - inner_dot - 1;
  if (inner_length == 0 || inner_length > kMaxInnerExtensionLength) return last_dot;
  return inner_dot;
}

}  // namespace

FilePath FilePath::FromUTF8Unsafe(std::string_view utf8) { return FilePath(std::string(utf8)); }

FilePath FilePath::DirName() const {
  std::string_view path = StripTrailingSeparators(path_);
  size_t last_separator = path.rfind(kSeparator);
  if (last_separator == kNpos) return FilePath(".");
  if (last_separator == 0) return FilePath(std::string(1, kSeparator));
  // "a//b" -> "a"; "//b" -> "/".
  return FilePath(std::string(StripTrailingSeparators(path.substr(0, last_separator))));
}

FilePath FilePath::BaseName() const {
  std::string_view path = StripTrailingSeparators(path_);
  if (path.size() == 1 && path[0] == kSeparator) return FilePath(std::string(path));
  return FilePath(std::string(LastComponent(path)));
}

std::string FilePath::Extension() const {
  // A path ending in a separator names a directory by its contents, and has no
  // extension; this keeps Extension() and InsertBeforeExtension() in agreement.
  std::string_view name = LastComponent(path_);
  size_t start = ExtensionStart(name);
  return start == kNpos ? std::string() : std::string(name.substr(start));
}

FilePath FilePath::Append(std::string_view component) const {
  // A component given with leading separators is still appended, not taken as a new
  // root: "a".Append("/b") is "a/b".
  size_t first = component.find_first_not_of(kSeparator);
  component = first == kNpos ? std::string_view() : component.substr(first);
  if (component.empty()) return *this;
  if (path_.empty() || path_ == ".") return FilePath(std::string(component));

  std::string result(StripTrailingSeparators(path_));
  if (result.back() != kSeparator) result.push_back(kSeparator);
  result.append(component);
  return FilePath(std::move(result));
}

FilePath FilePath::InsertBeforeExtension(std::string_view suffix) const {
  if (suffix.empty() || path_.empty() || path_.back() == kSeparator) return *this;
  std::string_view name = LastComponent(path_);
  if (name == "." || name == "..") return *this;

  size_t name_offset = path_.size() - name.size();
  size_t start = ExtensionStart(name);
  size_t insert_at = start == kNpos ? path_.size() : name_offset + start;
  std::string result = path_;
  result.insert(insert_at, suffix);
  return FilePath(std::move(result));
}

std::ostream& operator<<(std::ostream& out, const FilePath& path) { return out << path.value(); }

}  // namespace tarn_base
