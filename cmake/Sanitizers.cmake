# KORVSDK_SANITIZE=address (AddressSanitizer with UBSan) or thread
# (ThreadSanitizer), for the native Linux build only.
if(KORVSDK_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  if(KORVSDK_SANITIZE STREQUAL "address")
    set(_flags -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  elseif(KORVSDK_SANITIZE STREQUAL "thread")
    set(_flags -fsanitize=thread)
  else()
    message(FATAL_ERROR "KORVSDK_SANITIZE must be 'address' or 'thread'")
  endif()
  add_compile_options(${_flags})
  # Tests that repeat a long run many times take fewer steps under the
  # sanitizers' cost.
  add_compile_definitions(KORVSDK_SANITIZER_BUILD)
  add_link_options(${_flags})
endif()
