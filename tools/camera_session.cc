// The emulated camera the camera commands of mr740cam run.

#include "tools/camera_session.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "emulator/scene.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"
#include "tools/registry_tool.h"

namespace {

bool EndsWith(const std::string& text, const char* end) {
  const size_t n = std::strlen(end);
  return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

bool AllDigits(const std::string& text) {
  if (text.empty() || text.size() > 4) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// A built-in description is whole when its sensor candidates are in the
// registry and its scripts lie on drive C.
bool BuiltInInstalled(const CameraModel& model) {
  if (!RegistryKeyExists(DeviceSoftwareKeyPath(model.instance) + u"\\SensorDetect")) {
    return false;
  }
  const std::filesystem::path folder =
      std::filesystem::path(ToolDriveFolder(AttachedRegistryFile())) / "Cameras" / model.name;
  std::error_code error;
  return std::filesystem::is_directory(folder, error) && !std::filesystem::is_empty(folder, error);
}

std::string Ascii(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) out += c < 0x80 ? char(c) : '?';
  return out;
}

// Puts the whole tree back to `text`, a SaveRegistryText of it. An empty
// text (a tree the text form could not hold) leaves the tree as it is.
void RestoreRegistry(const std::string& text) {
  if (text.empty()) return;
  const std::u16string root = u"\\REGISTRY\\MACHINE";
  std::vector<std::u16string> keys;
  ListRegistrySubKeys(root, &keys);
  std::vector<RegistryEdit> edits;
  for (const std::u16string& key : keys) {
    RegistryEdit edit;
    edit.kind = RegistryEdit::DeleteKey;
    edit.path = root + u"\\" + key;
    edits.push_back(edit);
  }
  ApplyRegistryEdits(edits);
  std::string ignored;
  LoadRegistryText(text, "the registry as it was", &ignored);
}

// The script a description loaded from a .reg file names must lie on drive
// C. A script beside the .reg file (as in a folder of cameras/) is copied
// there; one found nowhere is an error that says where it was looked for.
bool PlaceScript(const std::string& regFile, uint32_t instance, FILE* err) {
  const std::u16string device = DeviceSoftwareKeyPath(instance);
  std::u16string sensor, script;
  if (!GetRegistryString(device + u"\\SensorDetect\\Sensor00", u"SensorName", &sensor) ||
      !GetRegistryString(device + u"\\" + sensor + u"\\InitialSetting", u"Script", &script)) {
    return true;  // the driver itself says what is missing
  }
  std::string windows = Ascii(script);
  if (windows.size() < 3 || (windows[0] != 'C' && windows[0] != 'c') || windows[1] != ':' ||
      windows[2] != '\\') {
    std::fprintf(err, "mr740cam: %s: the script %s is not on drive C\n", regFile.c_str(),
                 windows.c_str());
    return false;
  }
  std::string relative = windows.substr(3);
  for (char& c : relative) {
    if (c == '\\') c = '/';
  }
  const std::filesystem::path target =
      std::filesystem::path(ToolDriveFolder(AttachedRegistryFile())) / relative;
  std::error_code error;
  if (std::filesystem::exists(target, error)) return true;
  const std::filesystem::path beside =
      std::filesystem::path(regFile).parent_path() / target.filename();
  if (std::filesystem::exists(beside, error)) {
    std::filesystem::create_directories(target.parent_path(), error);
    std::filesystem::copy_file(beside, target, error);
    if (!error) return true;
  }
  std::fprintf(err, "mr740cam: %s: its script %s is neither at %s nor beside the .reg file\n",
               regFile.c_str(), windows.c_str(), target.string().c_str());
  return false;
}

}  // namespace

std::string FormatSubtypeName(uint32_t compression) {
  switch (compression) {
    case 0:
    case 0xE436EB7D:
      return "RGB24";
    case 0x32595559:
      return "YUY2";
    case 0x30323449:
      return "I420";
  }
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", compression);
  return text;
}

std::string DescribeFormat(const KS_DATARANGE_VIDEO& range) {
  const KS_BITMAPINFOHEADER& bitmap = range.VideoInfoHeader.bmiHeader;
  const int64_t fastest = range.ConfigCaps.MinFrameInterval;
  const int64_t slowest = range.ConfigCaps.MaxFrameInterval;
  char text[160];
  std::snprintf(text, sizeof text, "%-5s %ux%u %u bits %u bytes %lld-%lld (%.1f-%.1f fps)",
                FormatSubtypeName(bitmap.biCompression).c_str(), unsigned(bitmap.biWidth),
                unsigned(bitmap.biHeight), unsigned(bitmap.biBitCount), bitmap.biSizeImage,
                (long long)fastest, (long long)slowest, fastest ? 1e7 / double(fastest) : 0.0,
                slowest ? 1e7 / double(slowest) : 0.0);
  return text;
}

CameraSession::~CameraSession() { Close(nullptr); }

bool CameraSession::Close(FILE* err) {
  host_.reset();
  bool joined = true;
  if (camera_) {
    // The driver's threads end with the device; the camera goes after them.
    joined = JoinSystemThreads(10000);
    if (!joined && err) std::fprintf(err, "mr740cam: the driver's threads did not end\n");
  }
  camera_.reset();
  trace_.reset();
  return joined;
}

bool CameraSession::FindDescription(const std::string& camera, FILE* err) {
  std::string error;
  if (camera.empty() || FindBuiltInCameraModel(camera)) {
    model_ = *FindBuiltInCameraModel(camera.empty() ? DefaultCameraModel : camera);
    if (!BuiltInInstalled(model_) &&
        !InstallEmbeddedCamera(model_.name, ToolDriveFolder(AttachedRegistryFile()), err)) {
      return false;
    }
    return true;
  }
  if (AllDigits(camera)) {
    if (!DescribeInstalledCamera(uint32_t(std::stoul(camera)), camera, &model_, &error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return false;
    }
    return true;
  }
  if (EndsWith(camera, ".reg")) {
    std::ifstream file(camera, std::ios::binary);
    if (!file) {
      std::fprintf(err, "mr740cam: cannot read the camera description %s\n", camera.c_str());
      return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    uint32_t instance = 0;
    if (!DescriptionInstance(text.str(), &instance)) {
      std::fprintf(err,
                   "mr740cam: %s describes no camera: it has no key below "
                   "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
                   "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\n",
                   camera.c_str());
      return false;
    }
    // A description the camera cannot use is refused whole: the registry
    // goes back to what it held before the file was merged into it.
    const std::string before = SaveRegistryText();
    if (!LoadRegistryFile(camera, &error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return false;
    }
    if (!DescribeInstalledCamera(instance, camera, &model_, &error)) {
      std::fprintf(err, "mr740cam: %s: %s\n", camera.c_str(), error.c_str());
      RestoreRegistry(before);
      return false;
    }
    if (!PlaceScript(camera, instance, err)) {
      RestoreRegistry(before);
      return false;
    }
    return true;
  }
  std::fprintf(err, "mr740cam: no camera %s: name a built-in model (", camera.c_str());
  const char* separator = "";
  for (const std::string& model : EmbeddedCameraModels()) {
    std::fprintf(err, "%s%s", separator, model.c_str());
    separator = ", ";
  }
  std::fprintf(err, "), a .reg file or an installed device key number\n");
  return false;
}

bool CameraSession::Open(const CameraSessionOptions& options, FILE* err) {
  if (!FindDescription(options.camera, err)) return false;

  EmulatedCameraConfig config = EmulatedCameraConfigFor(model_);
  SceneConfig scene;
  if (!options.scene.empty()) {
    std::string error;
    if (!ParseSceneText(options.scene, &scene, &error)) {
      std::fprintf(err, "mr740cam: --scene: %s\n", error.c_str());
      return false;
    }
    config.frameSource = MakeSceneSource(scene, &error);
    if (!config.frameSource) {
      std::fprintf(err, "mr740cam: --scene: %s\n", error.c_str());
      return false;
    }
  }
  if (!options.usbTrace.empty()) {
    std::string error;
    trace_ = OpenUsbTrace(options.usbTrace, &error);
    if (!trace_) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return false;
    }
  }
  camera_ = std::make_unique<EmulatedCamera>(config);
  if (!options.scene.empty()) ApplySceneInputs(scene, camera_.get());

  HostedCameraConfig hosted;
  hosted.camera = camera_.get();
  hosted.deviceKeyPath = DeviceSoftwareKeyPath(model_.instance);
  hosted.trace = trace_.get();
  std::string error;
  const NTSTATUS status = HostedCamera::Start(hosted, &host_, &error);
  if (status != STATUS_SUCCESS || !host_) {
    std::fprintf(err, "mr740cam: the camera %s did not start (%s)%s%s\n", model_.name.c_str(),
                 NtStatusName(status), error.empty() ? "" : ": ", error.c_str());
    Close(nullptr);
    return false;
  }
  return true;
}

int TakeCameraSessionOption(int argc, char** argv, int* i, CameraSessionOptions* options,
                            FILE* err) {
  const std::string arg = argv[*i];
  std::string* target = arg == "--camera"      ? &options->camera
                        : arg == "--scene"     ? &options->scene
                        : arg == "--usb-trace" ? &options->usbTrace
                                               : nullptr;
  if (!target) return 0;
  if (*i + 1 >= argc || argv[*i + 1][0] == '\0') {
    std::fprintf(err, "mr740cam: %s needs a value\n", arg.c_str());
    return -1;
  }
  *target = argv[++*i];
  return 1;
}

VirtualTimeScope::VirtualTimeScope() : previous_(int(GetKernelClockMode())) {
  SetKernelClockMode(KernelClockMode::Virtual);
}

VirtualTimeScope::~VirtualTimeScope() { SetKernelClockMode(KernelClockMode(previous_)); }
