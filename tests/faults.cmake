# SPDX-License-Identifier: Apache-2.0
# The fault suite (tests/faults/) replays its faults through the injection
# library of the long-form tool (tools/faults/); compile it in here so the
# suite does not depend on the tools being built.
if(TARGET test_faults)
  target_sources(test_faults PRIVATE ${PROJECT_SOURCE_DIR}/tools/faults/fault_injection.cpp)
endif()
