# The images that Windows loads, each with its symbols beside it: the kernel modules zpklib.sys and
# zpregflt.sys, linked from the same sources as on Linux with src/windows instead of src/platform
# under them, and the program zpregmon.exe.
foreach(tool ld.lld llvm-dlltool llvm-nm llvm-objdump llvm-pdbutil llvm-rc)
  string(MAKE_C_IDENTIFIER ${tool} variable)
  string(TOUPPER ${variable} variable)
  find_program(${variable} NAMES ${tool}-14 ${tool} REQUIRED)
endforeach()
find_library(NTOSKRNL_LIBRARY ntoskrnl REQUIRED)
# The package's C++ library comes in two flavours; this one has threads.
find_path(MINGW_GCC crtbegin.o REQUIRED NO_CMAKE_FIND_ROOT_PATH
  PATHS /usr/lib/gcc/x86_64-w64-mingw32/12-posix)
set(MINGW_CXX_INCLUDE ${MINGW_GCC}/include/c++)
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# Images are linked with what they name and nothing else, and need no import library beside them.
set(CMAKE_CXX_STANDARD_LIBRARIES "")
set(CMAKE_CXX_LINK_EXECUTABLE
  "<CMAKE_CXX_COMPILER> <FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")

# Nothing of the host's is seen, nothing of a C library, and of the C++ library only what is
# freestanding. Unwind tables are asked for by name: without exceptions there would be none, and the
# kernel finds no handler above a function that lacks them. No frame comes near a page, so that no
# stack probes are needed. Jump tables would stand among the code, where they read as code.
add_library(windows_kernel_options INTERFACE)
target_include_directories(windows_kernel_options INTERFACE
  src src/windows/include src/platform/include)
target_compile_options(windows_kernel_options INTERFACE
  -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
  -fno-strict-aliasing -fasynchronous-unwind-tables -mno-stack-arg-probe -fno-jump-tables
  -nostdinc++ -nostdlibinc
  "SHELL:-isystem ${MINGW_CXX_INCLUDE}" "SHELL:-isystem ${MINGW_CXX_INCLUDE}/x86_64-w64-mingw32"
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Werror
  -Wglobal-constructors -Wexit-time-destructors -Wframe-larger-than=1024)
# The process notification wants images that ask for integrity checks.
target_link_options(windows_kernel_options INTERFACE
  -nostdlib -fuse-ld=${LD_LLD}
  LINKER:--subsystem,native LINKER:--major-os-version,6 LINKER:--minor-os-version,1
  LINKER:--major-subsystem-version,6 LINKER:--minor-subsystem-version,1
  LINKER:--disable-auto-import LINKER:--disable-runtime-pseudo-reloc
  LINKER:--gc-sections LINKER:--disable-tsaware
  LINKER:--Xlink=/driver LINKER:--Xlink=/integritycheck)

# Writes the target's symbols to <name>.pdb; the image knows that file by its name alone.
function(add_symbols name)
  target_compile_options(${name} PRIVATE
    -g -gcodeview -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
  target_link_options(${name} PRIVATE LINKER:--no-insert-timestamp
    LINKER:--pdb=${CMAKE_BINARY_DIR}/${name}.pdb LINKER:--Xlink=/pdbaltpath:${name}.pdb)
endfunction()

# The version resource of an image; sets `output` to the file. TYPE, SUBTYPE: of VS_FIXEDFILEINFO.
function(add_version_resource output name)
  cmake_parse_arguments(ARG "" "SUFFIX;TYPE;SUBTYPE;DESCRIPTION" "" ${ARGN})
  set(version ${CMAKE_BINARY_DIR}/${name}.res)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${name}.rc)
  add_custom_command(OUTPUT ${version}
    COMMAND ${LLVM_RC} -no-preprocess -fo ${version} ${name}.rc DEPENDS ${name}.rc VERBATIM)
  set(${output} ${version} PARENT_SCOPE)
endfunction()

# An import library of the functions that a module definition file names.
function(add_import_library name definition)
  set(library ${CMAKE_BINARY_DIR}/lib${name}.a)
  add_custom_command(OUTPUT ${library}
    COMMAND ${LLVM_DLLTOOL} -m i386:x86-64 -d ${definition} -l ${library}
    DEPENDS ${definition} VERBATIM)
  add_custom_target(${name}_import DEPENDS ${library})
  add_library(${name} INTERFACE)
  target_link_libraries(${name} INTERFACE ${library})
  add_dependencies(${name} ${name}_import)
endfunction()

# The functions that zpklib exports are those that its header declares.
function(write_module_definition header output)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  file(READ ${header} text)
  string(REGEX MATCHALL "NTAPI ZPk[A-Za-z0-9]+\\(" declarations "${text}")
  list(TRANSFORM declarations REPLACE "NTAPI (.*)\\(" "\\1")
  list(JOIN declarations "\n" names)
  file(CONFIGURE OUTPUT ${output} CONTENT "LIBRARY zpklib.sys\nEXPORTS\n${names}\n")
endfunction()

# Links build/windows/<name>.sys and <name>.pdb. FOLDERS: those of src whose sources it is made of;
# ENTRY: the routine that the system calls; DEFINITION: the module definition file of its exports.
function(add_kernel_image name)
  cmake_parse_arguments(ARG "" "ENTRY;DESCRIPTION;DEFINITION" "FOLDERS;LINK" ${ARGN})
  set(sources)
  foreach(folder ${ARG_FOLDERS})
    file(GLOB files CONFIGURE_DEPENDS src/${folder}/*.cpp)
    list(APPEND sources ${files})
  endforeach()
  add_version_resource(version ${name} SUFFIX .sys TYPE 3 SUBTYPE 7
    DESCRIPTION ${ARG_DESCRIPTION})
  add_executable(${name} ${sources} ${version})
  set_target_properties(${name} PROPERTIES SUFFIX .sys
    LINK_DEPENDS "${version};${ARG_DEFINITION}")
  # Optimised as a whole, as on Linux.
  target_compile_options(${name} PRIVATE -flto)
  target_link_options(${name} PRIVATE LINKER:--entry,${ARG_ENTRY} -flto)
  add_symbols(${name})
  target_link_libraries(${name} PRIVATE windows_kernel_options ${ARG_LINK} ${ARG_DEFINITION}
    ${version} ${NTOSKRNL_LIBRARY})
  add_custom_command(TARGET ${name} POST_BUILD VERBATIM
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/cmake/set_checksum.py $<TARGET_FILE:${name}>)
endfunction()

# Inlined, its exception handler would become that of whoever copies.
set_source_files_properties(src/windows/protected_access.cpp PROPERTIES
  COMPILE_OPTIONS "-fms-extensions;-fno-lto")

set(zpklib_definition ${CMAKE_BINARY_DIR}/zpklib.def)
write_module_definition(${CMAKE_SOURCE_DIR}/src/supportlib/zpklib.h ${zpklib_definition})
add_import_library(zpklib_exports ${zpklib_definition})
add_import_library(wdfldr ${CMAKE_SOURCE_DIR}/cmake/wdfldr.def)

add_kernel_image(zpklib ENTRY ZPkDriverEntry FOLDERS supportlib DEFINITION ${zpklib_definition}
  DESCRIPTION "Support library of the registry activity monitor")
add_kernel_image(zpregflt ENTRY FxDriverEntry
  FOLDERS driver intercept records channel windows LINK zpklib_exports wdfldr
  DESCRIPTION "Registry activity monitor")

include(cmake/windows-program.cmake)

enable_testing()
add_subdirectory(tests/windows)
