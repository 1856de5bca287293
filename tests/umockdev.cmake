# umockdev for the tests of the Linux HID backend: a synthetic sysfs and fake
# hidraw nodes. umockdev works through a preloaded library, so every run of
# such a test program (the test listing at build time included) goes through
# umockdev-wrapper: gtest_discover_tests runs a target's
# CROSSCOMPILING_EMULATOR in front of it, and targets made in the folder that
# includes this file take it from the variable set here.
find_package(PkgConfig REQUIRED)
pkg_check_modules(UMOCKDEV REQUIRED IMPORTED_TARGET umockdev-1.0)
find_program(KORVSDK_UMOCKDEV_WRAPPER umockdev-wrapper REQUIRED)

set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVSDK_UMOCKDEV_WRAPPER})
if(KORVSDK_SANITIZE STREQUAL "address")
  # The preload comes before the AddressSanitizer runtime in the library
  # order, which the runtime refuses unless told it is fine.
  set(CMAKE_CROSSCOMPILING_EMULATOR
    ${CMAKE_COMMAND} -E env ASAN_OPTIONS=verify_asan_link_order=0 ${KORVSDK_UMOCKDEV_WRAPPER})
elseif(KORVSDK_SANITIZE STREQUAL "thread")
  # umockdev hands each node to its worker thread in a way only GLib orders,
  # which ThreadSanitizer cannot see; the suppressions file names that one
  # report and says why it is no race.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_COMMAND} -E env
    TSAN_OPTIONS=suppressions=${CMAKE_CURRENT_LIST_DIR}/support/linux/umockdev-tsan.supp
    ${KORVSDK_UMOCKDEV_WRAPPER})
endif()

# The testbed that both the backend tests and the device sessions build on.
set(KORVSDK_UMOCKDEV_TESTBED_SOURCE ${CMAKE_CURRENT_LIST_DIR}/support/linux/umockdev_testbed.cpp)
