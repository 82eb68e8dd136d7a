# Compares what LIBRARY exports with the platform's functions. A sanitizer's own symbols are not counted.

set(expected
  LwipcWaitEvent
  __dlog_print
  resource_clear_cpu_inheritance
  resource_set_cpu_inheritance
  smart_deadlock_register_watchdog_service
  smart_deadlock_unregister_watchdog_service
  smart_deadlock_watchdog_notify
  system_info_get_custom_bool)

execute_process(COMMAND ${NM} -D --defined-only --format=just-symbols ${LIBRARY}
  OUTPUT_VARIABLE symbols OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" symbols "${symbols}")
list(FILTER symbols EXCLUDE REGEX "^__(asan|odr_asan|tsan|gcov)")
list(SORT symbols)
if(NOT symbols STREQUAL expected)
  message(FATAL_ERROR "exported:\n${symbols}\nexpected:\n${expected}\nIf that is meant, change this list.")
endif()
