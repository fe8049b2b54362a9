// mr740cam's registry: what one run of the tool writes, the next run finds;
// camera descriptions load into it and export back; bad input is refused with
// its file and line.

#include <gtest/gtest.h>

#include <cstdio>
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <fstream>
#include <string>
#include <vector>

#include "platform/files_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"
#include "tools/registry_tool.h"

namespace {

class RegistryTool : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    folder_ = std::filesystem::temp_directory_path() /
              ("mr740-registry-tool-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
    file_ = (folder_ / "state" / "registry.reg").string();
  }
  void TearDown() override {
    ResetRegistry();
    std::filesystem::remove_all(folder_);
  }

  // One run of the tool: a fresh process starts with an empty registry and
  // ends by flushing its file.
  int Run(std::vector<std::string> args, std::string* out = nullptr, std::string* err = nullptr) {
    ResetRegistry();
    args.insert(args.begin(), {"mr740cam", "--registry", file_});
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int argc = int(args.size());
    std::string file = TakeRegistryFileOption(&argc, argv.data());
    EXPECT_EQ(file, file_);
    FILE* outFile = std::tmpfile();
    FILE* errFile = std::tmpfile();
    int status = OpenToolRegistry(file, errFile) ? RunRegistryTool(argc, argv.data(), outFile, errFile)
                                                : 1;
    DetachRegistryFile();
    if (out) *out = Contents(outFile);
    if (err) *err = Contents(errFile);
    std::fclose(outFile);
    std::fclose(errFile);
    return status;
  }

  static std::string Contents(FILE* file) {
    std::rewind(file);
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
    return text;
  }

  std::string Write(const std::string& name, const std::string& text) {
    std::string path = (folder_ / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  std::filesystem::path folder_;
  std::string file_;
};

const char kCamera[] =
    "Windows Registry Editor Version 5.00\r\n\r\n"
    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
    "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0000\\InitialSetting]\r\n"
    "\"Script\"=\"C:\\\\Cameras\\\\OV7670.txt\"\r\n"
    "\"SeparateCtrl\"=dword:00000000\r\n";

TEST_F(RegistryTool, ValuesOfOneRunAreThereInTheNext) {
  const std::string key =
      "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Class\\{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}"
      "\\0000";
  ASSERT_EQ(Run({"registry", "load", Write("camera.reg", kCamera)}), 0);
  ASSERT_EQ(Run({"registry", "set", key + "\\PropertySetting", "LensPos", "dword:2a"}), 0);
  ASSERT_EQ(Run({"registry", "set", key, "SensorName", "OV7670"}), 0);

  // A later run, as the driver would see it after a restart.
  std::string out;
  ASSERT_EQ(Run({"registry", "show", key}, &out), 0);
  EXPECT_NE(out.find("\"Script\"=\"C:\\\\Cameras\\\\OV7670.txt\""), std::string::npos) << out;
  EXPECT_NE(out.find("\"LensPos\"=dword:0000002a"), std::string::npos) << out;
  EXPECT_NE(out.find("\"SensorName\"=\"OV7670\""), std::string::npos) << out;

  // Export gives a file that loads into an empty registry as the same tree.
  const std::string exported = (folder_ / "out.reg").string();
  ASSERT_EQ(Run({"registry", "export", exported, key}), 0);
  ResetRegistry();
  std::string error;
  ASSERT_TRUE(LoadRegistryFile(exported, &error)) << error;
  uint32_t lens = 0;
  EXPECT_TRUE(GetRegistryDword(DeviceSoftwareKeyPath(0) + u"\\PropertySetting", u"LensPos", &lens));
  EXPECT_EQ(lens, 42u);
}

TEST_F(RegistryTool, BadInputIsRefusedWithItsReason) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;  // part of what stderr says
  };
  const std::string bad = Write("bad.reg", std::string(kCamera) + "\"Broken\"=dword:xyz\r\n");
  const Case cases[] = {
      {{"registry", "load", bad}, 1, "bad.reg:6:"},
      {{"registry", "load", (folder_ / "missing.reg").string()}, 1, "missing.reg"},
      {{"registry", "set", "HKEY_CURRENT_USER\\X", "A", "dword:1"}, 2, "no key"},
      {{"registry", "set", "HKLM\\X", "A", "dword:123456789"}, 2, "eight hexadecimal"},
      {{"registry", "set", "HKLM\\X", "A", "dword:"}, 2, "eight hexadecimal"},
      {{"registry", "show", "HKLM\\NoSuchKey"}, 1, "no key"},
      {{"registry", "frobnicate"}, 2, "usage"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1]);
    std::string err;
    EXPECT_EQ(Run(c.args, nullptr, &err), c.status);
    EXPECT_NE(err.find(c.message), std::string::npos) << err;
  }
  // Nothing of a failed load reached the tool's file.
  std::string out;
  ASSERT_EQ(Run({"registry", "show"}, &out), 0);
  EXPECT_EQ(out.find("Broken"), std::string::npos);
  EXPECT_EQ(out.find("OV7670"), std::string::npos);
}

TEST_F(RegistryTool, EveryBuiltInCameraInstallsWithScriptsWhereItsDescriptionLooks) {
  std::vector<std::string> models = EmbeddedCameraModels();
  ASSERT_EQ(models.size(), 4u);
  EXPECT_NE(std::find(models.begin(), models.end(), DefaultCameraModel), models.end());
  struct Case {
    std::string model;  // empty: the default
    uint32_t instance;
    std::u16string sensor;
    std::string script;  // relative to cameras/
  };
  const Case cases[] = {
      {"", 0, u"OV7670", "ov7670-webcam/OV7670.txt"},
      {"ov2640-camera", 1, u"OV2640", "ov2640-camera/OV2640.txt"},
      {"mi2021-camera", 3, u"MI2021", "mi2021-camera/MI2021.txt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::vector<std::string> args = {"registry", "install"};
    if (!c.model.empty()) args.push_back(c.model);
    ASSERT_EQ(Run(args), 0);
    // A later run finds the description, and its script through drive C.
    ResetRegistry();
    std::string error;
    ASSERT_TRUE(AttachRegistryFile(file_, &error)) << error;
    std::u16string script;
    EXPECT_TRUE(GetRegistryString(DeviceSoftwareKeyPath(c.instance) + u"\\" + c.sensor +
                                      u"\\InitialSetting",
                                  u"Script", &script));
    DetachRegistryFile();
    ASSERT_TRUE(MapDosDrive('C', ToolDriveFolder(file_)));
    std::string hostPath;
    ASSERT_TRUE(HostPathOfObjectName(u"\\??\\" + script, &hostPath)) << NarrowAscii(script);
    std::ifstream installed(hostPath, std::ios::binary), shipped(
        std::string(MR740_SOURCE_DIR) + "/cameras/" + c.script, std::ios::binary);
    std::string a((std::istreambuf_iterator<char>(installed)), {});
    std::string b((std::istreambuf_iterator<char>(shipped)), {});
    EXPECT_FALSE(a.empty());
    EXPECT_EQ(a, b);
    UnmapAllDosDrives();
  }
  std::string err;
  EXPECT_EQ(Run({"registry", "install", "no-such-camera"}, nullptr, &err), 1);
  EXPECT_NE(err.find("no built-in camera"), std::string::npos);
}

}  // namespace
