# Flags that make a fault harder to use against us. tests/built_files_test.py looks at what came of
# them in the files that were built.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES C CXX) # programs are linked as they are compiled: at any address
add_compile_options(-fstack-protector-strong)
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

set(flags)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
  set(flags -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  set(flags -mbranch-protection=standard)
endif()
foreach(flag IN LISTS flags ITEMS -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "VAKRO_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    add_compile_options(${flag})
  endif()
endforeach()

# Needs an optimiser, and hides from the sanitizers what they would find better.
if(NOT VAKRO_SANITIZE)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()
