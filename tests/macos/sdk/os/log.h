#pragma once
#include <stdint.h>

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;
enum : uint8_t {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11
};
os_log_t os_log_create(const char* subsystem, const char* category);
// The SDK's macro takes a constant format string, with privacy annotations such as
// "%{public}s"; this stands in for it with the same shape.
void korvalen_os_log_stand_in(os_log_t log, os_log_type_t type, const char* format, ...);
#define os_log_with_type(log, type, format, ...) korvalen_os_log_stand_in(log, type, "" format, ##__VA_ARGS__)
