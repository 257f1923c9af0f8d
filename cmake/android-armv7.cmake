# The product for the target, 32-bit ARM at API level 33: the NDK's clang with the platform's headers.
# docs/android.md says how to use it. Builds what Android.bp builds: it is how to see that the sources
# compile for the target without an image build.
set(QUIL_ANDROID ON)
set(QUIL_IMAGE ON)
if(NOT ANDROID_NDK)
  set(ANDROID_NDK $ENV{ANDROID_NDK_ROOT})
endif()
if(NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR "ANDROID_NDK (or ANDROID_NDK_ROOT) does not name an NDK: '${ANDROID_NDK}'")
endif()
set(ANDROID_ABI armeabi-v7a)
set(ANDROID_PLATFORM android-33)
set(ANDROID_STL c++_shared)
set(ANDROID_CPP_FEATURES "no-rtti exceptions")
# The closed libraries and the platform's own are not there to link: the image's build does that.
set(ANDROID_ALLOW_UNDEFINED_SYMBOLS ON)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_NDK)
include(${ANDROID_NDK}/build/cmake/android.toolchain.cmake)
