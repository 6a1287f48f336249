// Files, folders and text for tests: a temporary folder removed with its files, whole files, the
// files of a folder, and the small text helpers that parsing tool output needs.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

typedef std::vector<uint8_t> Bytes;

// A fresh folder under /tmp, removed with everything in it at the end of the scope.
struct TempDir {
  std::string path;
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  std::string Write(const std::string &name, const std::string &contents) const;  // the file's path
  std::string Write(const std::string &name, const Bytes &contents) const;
};
// A file in this process's own temporary folder (removed at exit), replaced if it exists.
std::string WriteTempFile(const Bytes &contents, const std::string &name);
std::string ReadFile(const std::string &path, bool *ok = nullptr);
bool FileExists(const std::string &path);
// The regular files of a folder whose names end with suffix, as full paths, sorted.
std::vector<std::string> FilesIn(const std::string &folder, const std::string &suffix);

// The lines of a golden file (a path under the source tree) as their fields between tabs, with
// their line numbers; lines that start with "# " and empty lines are comments.
struct GoldenLine {
  int number;
  std::vector<std::string> fields;
};
std::vector<GoldenLine> ReadGolden(const std::string &path_in_source_tree);

std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Hex(const uint8_t *bytes, size_t count);  // lower-case, two digits a byte
std::string Trim(const std::string &text);            // without blanks at either end
std::vector<std::string> Split(const std::string &text, char separator);  // "" gives one empty part
