// mr740cam's registry file and the "registry" subcommands.

#include "tools/registry_tool.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"

namespace {

const char kUsage[] =
    "usage: mr740cam registry load FILE.reg ... | export FILE.reg [KEY] | show [KEY] |\n"
    "                         set KEY NAME dword:N|TEXT | install [MODEL] | path\n";

// "HKEY_LOCAL_MACHINE\X" or "HKLM\X" to "\REGISTRY\MACHINE\X"; empty for the
// whole machine tree.
bool AbsoluteKeyPath(std::string_view key, std::u16string* path) {
  *path = u"\\REGISTRY\\MACHINE";
  if (key.empty()) return true;
  for (std::string_view root : {"HKEY_LOCAL_MACHINE", "HKLM"}) {
    if (key.size() < root.size() || strncasecmp(key.data(), root.data(), root.size()) != 0) {
      continue;
    }
    std::string_view rest = key.substr(root.size());
    if (rest.empty()) return true;
    if (rest[0] != '\\' || rest.size() == 1) return false;
    *path += U16(rest);
    return true;
  }
  return false;
}

std::string DefaultRegistryFile() {
  if (const char* file = std::getenv("MR740_REGISTRY"); file != nullptr && *file != '\0') {
    return file;
  }
  std::filesystem::path state;
  if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && *xdg != '\0') {
    state = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    state = std::filesystem::path(home) / ".local" / "state";
  } else {
    state = ".";
  }
  return (state / "mr740" / "registry.reg").string();
}

int Export(const std::string& file, std::string_view key, FILE* out, FILE* err) {
  std::u16string root;
  if (!AbsoluteKeyPath(key, &root)) {
    std::fprintf(err, "mr740cam: %.*s is no key of HKEY_LOCAL_MACHINE\n", int(key.size()),
                 key.data());
    return 2;
  }
  if (!RegistryKeyExists(root)) {
    std::fprintf(err, "mr740cam: no key %.*s\n", int(key.size()), key.data());
    return 1;
  }
  std::string error;
  if (file.empty()) {
    std::string text = SaveRegistryText(root, &error);
    if (!error.empty()) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return 1;
    }
    std::fwrite(text.data(), 1, text.size(), out);
    return 0;
  }
  if (!SaveRegistryFile(file, &error, root)) {
    std::fprintf(err, "mr740cam: %s\n", error.c_str());
    return 1;
  }
  return 0;
}

int Set(std::string_view key, const char* name, std::string_view value, FILE* err) {
  std::u16string path;
  if (key.empty() || !AbsoluteKeyPath(key, &path)) {
    std::fprintf(err, "mr740cam: %.*s is no key of HKEY_LOCAL_MACHINE\n", int(key.size()),
                 key.data());
    return 2;
  }
  bool done;
  if (value.substr(0, 6) == "dword:") {
    std::string digits(value.substr(6));
    char* end = nullptr;
    unsigned long number = std::strtoul(digits.c_str(), &end, 16);
    if (digits.empty() || digits.size() > 8 || *end != '\0') {
      std::fprintf(err, "mr740cam: %.*s: a dword is up to eight hexadecimal digits\n",
                   int(value.size()), value.data());
      return 2;
    }
    done = SetRegistryDword(path, U16(name), uint32_t(number));
  } else {
    done = SetRegistryString(path, U16(name), U16(value));
  }
  if (!done) {
    std::fprintf(err, "mr740cam: cannot set %s below %.*s\n", name, int(key.size()), key.data());
    return 1;
  }
  return 0;
}

}  // namespace

std::string TakeRegistryFileOption(int* argc, char** argv) {
  std::string file;
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    if (std::strcmp(argv[i], "--registry") == 0 && i + 1 < *argc) {
      file = argv[++i];
      continue;
    }
    argv[kept++] = argv[i];
  }
  *argc = kept;
  argv[kept] = nullptr;
  return file.empty() ? DefaultRegistryFile() : file;
}

std::string ToolDriveFolder(const std::string& registryFile) {
  return (std::filesystem::path(registryFile).parent_path() / "drive-c").string();
}

bool OpenToolRegistry(const std::string& file, FILE* err) {
  std::error_code ignored;
  std::filesystem::path parent = std::filesystem::path(file).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
  std::string error;
  if (!AttachRegistryFile(file, &error)) {
    std::fprintf(err, "mr740cam: registry %s: %s\n", file.c_str(), error.c_str());
    return false;
  }
  MapDosDrive('C', ToolDriveFolder(file));
  return true;
}

bool IsRegistryToolCommand(const char* name) { return std::strcmp(name, "registry") == 0; }

int RunRegistryTool(int argc, char** argv, FILE* out, FILE* err) {
  if (argc < 3) {
    std::fputs(kUsage, err);
    return 2;
  }
  std::string_view command = argv[2];
  std::vector<std::string_view> args(argv + 3, argv + argc);
  int status = 2;
  if (command == "load" && !args.empty()) {
    status = 0;
    for (std::string_view file : args) {
      std::string error;
      if (!LoadRegistryFile(std::string(file), &error)) {
        std::fprintf(err, "mr740cam: %s\n", error.c_str());
        status = 1;
        break;
      }
    }
  } else if (command == "export" && (args.size() == 1 || args.size() == 2)) {
    status = Export(std::string(args[0]), args.size() == 2 ? args[1] : "", out, err);
  } else if (command == "show" && args.size() <= 1) {
    status = Export("", args.empty() ? "" : args[0], out, err);
  } else if (command == "set" && args.size() == 3) {
    status = Set(args[0], argv[4], args[2], err);
  } else if (command == "install" && args.size() <= 1) {
    const std::string model = args.empty() ? "" : std::string(args[0]);
    status = InstallEmbeddedCamera(model, ToolDriveFolder(AttachedRegistryFile()), err) ? 0 : 1;
  } else if (command == "path" && args.empty()) {
    std::fprintf(out, "%s\n", AttachedRegistryFile().c_str());
    status = 0;
  } else {
    std::fputs(kUsage, err);
    return 2;
  }
  if (status == 0) {
    std::string error;
    if (!FlushRegistryFile(&error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return 1;
    }
  }
  return status;
}
