// Sensor detection and start-up configuration.
#include "script/sensor_detection.h"

NTSTATUS CheckBusSpeed(DeviceContext* context) {
  (void)context;
  return STATUS_SUCCESS;
}

NTSTATUS DetectSensor(DeviceContext* context) {
  (void)context;
  return STATUS_SUCCESS;
}

NTSTATUS StartImageLibraries(DeviceContext* context) {
  (void)context;
  return STATUS_SUCCESS;
}

void BuildFormatList(DeviceContext* context) { (void)context; }
