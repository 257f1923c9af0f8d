# What Android.bp builds, as Soong of API 33 builds a vendor module: its compiler's generation, C++
# library, linker and flags, with the workstation's stand-ins for the platform. For what the host's
# build lets through: a warning of theirs, a newer C++, a name that quil.map has and nobody defines.
set(QUIL_IMAGE ON)
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)

# Soong's flags for the device, without those that only its own C library and target can take
# (-nostdlibinc; -D_FORTIFY_SOURCE, since glibc's brings names that bionic does not have).
set(soong_flags -DANDROID -fmessage-length=0 -W -Wall -Wno-unused -Winit-self -Wpointer-arith
    -Wunguarded-availability -Werror=date-time -Werror=pragma-pack
    -Werror=pragma-pack-suspicious-include -Werror=string-plus-int
    -Werror=unreachable-code-loop-increment -no-canonical-prefixes -DNDEBUG -UDEBUG -fno-exceptions
    -Wno-multichar -O2 -fno-strict-aliasing -ffunction-sections -fdata-sections -fno-short-enums
    -funwind-tables -fstack-protector-strong -Wa,--noexecstack -Wstrict-aliasing=2
    -Werror=return-type -Werror=non-virtual-dtor -Werror=address -Werror=sequence-point
    -Werror=format-security -D__compiler_offsetof=__builtin_offsetof -faddrsig -fcommon
    -Werror=int-conversion -Wno-reserved-id-macro -Wno-unused-command-line-argument
    -Wno-sign-compare -Wno-defaulted-function-deleted -Wno-inconsistent-missing-override
    -Wno-c99-designator -ftrivial-auto-var-init=zero
    -enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang)
set(soong_cpp_flags -Wsign-promo -fvisibility-inlines-hidden -Wimplicit-fallthrough
    -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS -Wno-gnu-include-next -fno-rtti -stdlib=libc++)
set(soong_link_flags -fuse-ld=lld -Wl,-z,noexecstack -Wl,-z,relro -Wl,-z,now -Wl,--build-id=md5
    -Wl,--fatal-warnings -Wl,--no-undefined-version -Wl,--no-undefined)
list(JOIN soong_flags " " CMAKE_C_FLAGS_INIT)
list(JOIN soong_cpp_flags " " CMAKE_CXX_FLAGS_INIT)
string(PREPEND CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} ")
list(JOIN soong_link_flags " " CMAKE_SHARED_LINKER_FLAGS_INIT)
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT} -Wl,--gc-sections")

# Behind the module's own, which cannot take these back.
set(QUIL_LAST_FLAGS -Werror=int-to-pointer-cast -Werror=pointer-to-int-cast -Werror=fortify-source
    -Werror=address-of-temporary -Werror=return-type -Werror=bool-operation
    -Werror=int-in-bool-context -Werror=xor-used-as-pow -Wno-tautological-constant-compare
    -Wno-tautological-type-limit-compare -Wno-reorder-init-list -Wno-implicit-int-float-conversion
    -Wno-sizeof-array-div -Wno-tautological-overlap-compare -Wno-deprecated-copy
    -Wno-range-loop-construct -Wno-misleading-indentation -Wno-zero-as-null-pointer-constant
    -Wno-enum-enum-conversion -Wno-enum-float-conversion -Wno-pessimizing-move
    -Wno-non-c-typedef-for-linkage -Wno-string-compare)
