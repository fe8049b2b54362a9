// The capture host: placeholder definitions so that everything links; the
// real host follows.
#include "host/capture_host.h"

struct HostedCamera::State {};

NTSTATUS HostedCamera::Start(const HostedCameraConfig&, std::unique_ptr<HostedCamera>* camera,
                             std::string* error) {
  if (camera) camera->reset();
  if (error) *error = "the capture host is not built yet";
  return STATUS_NOT_IMPLEMENTED;
}
HostedCamera::HostedCamera(std::unique_ptr<State> state) : state_(std::move(state)) {}
HostedCamera::~HostedCamera() = default;
DeviceContext* HostedCamera::Context() const { return nullptr; }
uint32_t HostedCamera::StreamCount() const { return 0; }
std::vector<KS_DATARANGE_VIDEO> HostedCamera::Formats(uint32_t) const { return {}; }
NTSTATUS HostedCamera::IntersectFormat(uint32_t, const KS_DATARANGE_VIDEO&,
                                       KS_DATAFORMAT_VIDEOINFOHEADER*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::OpenStream(uint32_t, const KS_DATAFORMAT_VIDEOINFOHEADER&) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::CloseStream(uint32_t) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS HostedCamera::ProposeFormat(uint32_t, const KS_DATAFORMAT_VIDEOINFOHEADER&) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::SetFormat(uint32_t, const KS_DATAFORMAT_VIDEOINFOHEADER&) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::SetStreamState(uint32_t, KSSTATE) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS HostedCamera::ReadFrame(uint32_t, uint8_t*, uint32_t, HostFrame*, int64_t) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::GetProperty(const void*, uint32_t, void*, uint32_t, uint32_t*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::SetProperty(const void*, uint32_t, void*, uint32_t, uint32_t*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS HostedCamera::SetPowerState(DEVICE_POWER_STATE) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS HostedCamera::NotifyIdleState(bool) { return STATUS_NOT_IMPLEMENTED; }
void HostedCamera::SurpriseRemoval() {}
HostStatistics HostedCamera::Statistics() const { return {}; }
