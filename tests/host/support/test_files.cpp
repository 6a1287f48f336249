#include "test_files.h"

#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

TempDir::TempDir() {
  char name[] = "/tmp/ktrn-test-XXXXXX";
  path = mkdtemp(name) ? name : "";
}

TempDir::~TempDir() {
  if (!path.empty()) (void)!system(("rm -rf '" + path + "'").c_str());
}

std::string TempDir::Write(const std::string &name, const std::string &contents) const {
  std::string file = path + "/" + name;
  FILE *f = fopen(file.c_str(), "wb");
  if (!f) return "";
  fwrite(contents.data(), 1, contents.size(), f);
  fclose(f);
  return file;
}

std::string TempDir::Write(const std::string &name, const Bytes &contents) const {
  return Write(name, std::string(contents.begin(), contents.end()));
}

std::string WriteTempFile(const Bytes &contents, const std::string &name) {
  static TempDir own;
  return own.Write(name, contents);
}

std::string ReadFile(const std::string &path, bool *ok) {
  std::string text;
  FILE *f = fopen(path.c_str(), "rb");
  if (ok) *ok = f != nullptr;
  if (!f) return text;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), f)) > 0;) text.append(buffer, n);
  fclose(f);
  return text;
}

std::vector<std::string> FilesIn(const std::string &folder, const std::string &suffix) {
  std::vector<std::string> files;
  DIR *dir = opendir(folder.c_str());
  if (!dir) return files;
  while (dirent *e = readdir(dir)) {
    std::string name = e->d_name;
    struct stat st;
    if (stat((folder + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
      files.push_back(folder + "/" + name);
  }
  closedir(dir);
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<GoldenLine> ReadGolden(const std::string &path_in_source_tree) {
  std::vector<GoldenLine> lines;
  std::vector<std::string> text = Split(ReadFile(std::string(KTRN_SOURCE_DIR) + "/" + path_in_source_tree), '\n');
  for (size_t i = 0; i < text.size(); i++)
    if (!text[i].empty() && text[i].rfind("# ", 0) != 0) lines.push_back({(int)i + 1, Split(text[i], '\t')});
  return lines;
}

bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string Format(const char *format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

std::string Hex(const uint8_t *bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; i++) text += Format("%02x", bytes[i]);
  return text;
}

std::string Trim(const std::string &text) {
  size_t a = text.find_first_not_of(" \t\r\n"), b = text.find_last_not_of(" \t\r\n");
  return a == std::string::npos ? "" : text.substr(a, b - a + 1);
}

std::vector<std::string> Split(const std::string &text, char separator) {
  std::vector<std::string> parts;
  for (size_t from = 0, at;; from = at + 1) {
    at = text.find(separator, from);
    parts.push_back(text.substr(from, at - from));
    if (at == std::string::npos) return parts;
  }
}
