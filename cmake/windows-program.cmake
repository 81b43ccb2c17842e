# zpregmon.exe: the client library and the commands that Windows has. The C and C++ libraries
# are those of MinGW-w64, linked into the program but for what every Windows has.

# Header-only libraries of the host, shown to the compiler without the host's other headers.
find_path(FMT_INCLUDE fmt/format.h REQUIRED NO_CMAKE_FIND_ROOT_PATH)
find_path(CLI11_INCLUDE CLI/CLI.hpp REQUIRED NO_CMAKE_FIND_ROOT_PATH)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include)
file(CREATE_LINK ${FMT_INCLUDE}/fmt ${CMAKE_BINARY_DIR}/include/fmt SYMBOLIC)
file(CREATE_LINK ${CLI11_INCLUDE}/CLI ${CMAKE_BINARY_DIR}/include/CLI SYMBOLIC)
find_path(MINGW_LIBRARIES crt2u.o REQUIRED NO_CMAKE_FIND_ROOT_PATH
  PATHS /usr/x86_64-w64-mingw32/lib)
find_path(MINGW_INCLUDE windows.h REQUIRED)

add_library(windows_program_options INTERFACE)
target_include_directories(windows_program_options INTERFACE src)
target_compile_definitions(windows_program_options INTERFACE FMT_HEADER_ONLY)
target_compile_options(windows_program_options INTERFACE
  -fno-strict-aliasing -nostdinc++ -nostdlibinc
  "SHELL:-isystem ${MINGW_CXX_INCLUDE}" "SHELL:-isystem ${MINGW_CXX_INCLUDE}/x86_64-w64-mingw32"
  "SHELL:-isystem ${MINGW_INCLUDE}" "SHELL:-isystem ${CMAKE_BINARY_DIR}/include"
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)
target_link_options(windows_program_options INTERFACE
  -nostdlib -static -fuse-ld=${LD_LLD} ${MINGW_LIBRARIES}/crt2u.o ${MINGW_GCC}/crtbegin.o)
target_link_libraries(windows_program_options INTERFACE
  -L${MINGW_GCC} -L${MINGW_LIBRARIES} -Wl,--start-group -lstdc++ -lmingw32 -lgcc -lgcc_eh
  -lmoldname -lmingwex -lmsvcrt -lpthread -lkernel32 -ladvapi32 -lntdll -Wl,--end-group
  ${MINGW_GCC}/crtend.o)

file(GLOB program_sources CONFIGURE_DEPENDS src/client/*.cpp
  src/zpregmon/*.cpp src/zpregmon/session/*.cpp src/zpregmon/windows/*.cpp)
add_version_resource(program_version zpregmon SUFFIX .exe TYPE 1 SUBTYPE 0
  DESCRIPTION "Shows what programs do with the registry")
add_executable(zpregmon ${program_sources} ${program_version})
target_precompile_headers(zpregmon PRIVATE
  <fmt/format.h> <functional> <memory> <optional> <string> <unordered_map> <vector>)
add_symbols(zpregmon)
set_target_properties(zpregmon PROPERTIES LINK_DEPENDS ${program_version})
target_link_libraries(zpregmon PRIVATE ${program_version} windows_program_options)
