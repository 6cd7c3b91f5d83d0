# The library is built in layers, each its own object library over one folder
# Sources/fennick/<Layer>. Every layer compiles against the one include root
# Sources/, where a header's include path is its place in the tree.
#
# A layer may include only itself and the layers it names as dependencies, and
# a public header never includes an `Internal/` one (those are never
# installed): a check per layer, run whenever one of its files changes, fails
# the build on an include that breaks either rule.
set(FENNICK_SOURCE_ROOT ${CMAKE_SOURCE_DIR}/Sources)
set(FENNICK_LAYERS "")
set(FENNICK_PUBLIC_HEADERS "")

# fennick_check_layer_includes(<target> <layer> <allowed layers> <files>...)
function(fennick_check_layer_includes target layer allowed)
  set(check_dir ${CMAKE_BINARY_DIR}/layer-checks)
  set(list_file ${check_dir}/${layer}.files)
  set(stamp ${check_dir}/${layer}.checked)
  file(CONFIGURE OUTPUT ${list_file} CONTENT "${ARGN}")
  string(REPLACE ";" "," allowed "${allowed}")
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DLAYER=${layer} -DALLOWED=${allowed} -DFILES=${list_file}
            -DSTAMP=${stamp} -P ${CMAKE_SOURCE_DIR}/cmake/CheckLayerIncludes.cmake
    DEPENDS ${ARGN} ${list_file} ${CMAKE_SOURCE_DIR}/cmake/CheckLayerIncludes.cmake
    COMMENT "Checking the includes of layer ${layer}" VERBATIM)
  add_custom_target(${target}_includes DEPENDS ${stamp})
  add_dependencies(${target} ${target}_includes)
endfunction()

# fennick_layer(<Dir> [DEPENDS <lower layers>...] [PUBLIC_LIBS ...] [PRIVATE_LIBS ...])
# A layer whose directory holds no sources yet is left out. FENNICK_<Dir>_PUBLIC_LIBS
# and FENNICK_<Dir>_PRIVATE_LIBS, set by cmake/deps files, add to the lists given here.
function(fennick_layer name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  list(APPEND ARG_PUBLIC_LIBS ${FENNICK_${name}_PUBLIC_LIBS})
  list(APPEND ARG_PRIVATE_LIBS ${FENNICK_${name}_PRIVATE_LIBS})
  set(dir ${FENNICK_SOURCE_ROOT}/fennick/${name})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT sources)
    return()
  endif()
  file(GLOB_RECURSE header_files CONFIGURE_DEPENDS ${dir}/*.h)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${FENNICK_SOURCE_ROOT} ${dir}/*.h)
  list(FILTER headers EXCLUDE REGEX "/Internal/")

  set(target fennick_layer_${name})
  add_library(${target} OBJECT ${sources})
  fennick_configure_target(${target})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${FENNICK_SOURCE_ROOT}>)
  foreach(lower ${ARG_DEPENDS})
    if(TARGET fennick_layer_${lower})
      target_link_libraries(${target} PUBLIC fennick_layer_${lower})
    endif()
  endforeach()
  target_link_libraries(${target} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
  fennick_check_layer_includes(${target} ${name} "${ARG_DEPENDS}" ${sources} ${header_files})

  set(FENNICK_LAYERS ${FENNICK_LAYERS} ${name} PARENT_SCOPE)
  set(FENNICK_PUBLIC_HEADERS ${FENNICK_PUBLIC_HEADERS} ${headers} PARENT_SCOPE)
  set(FENNICK_LAYER_${name}_PRIVATE_LIBS ${ARG_PRIVATE_LIBS} PARENT_SCOPE)
  set(FENNICK_LAYER_${name}_PUBLIC_LIBS ${ARG_PUBLIC_LIBS} PARENT_SCOPE)
endfunction()

# fennick_library(<target> SHARED|STATIC <layers>...): one library of the objects
# of the given layers. Outside dependencies that only the sources use stay
# private to a shared library.
function(fennick_library target kind)
  set(objects "")
  set(public_libs "")
  set(private_libs "")
  foreach(layer ${ARGN})
    list(APPEND objects $<TARGET_OBJECTS:fennick_layer_${layer}>)
    list(APPEND public_libs ${FENNICK_LAYER_${layer}_PUBLIC_LIBS})
    list(APPEND private_libs ${FENNICK_LAYER_${layer}_PRIVATE_LIBS})
  endforeach()
  list(REMOVE_DUPLICATES public_libs)
  list(REMOVE_DUPLICATES private_libs)
  add_library(${target} ${kind} ${objects})
  fennick_configure_target(${target})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${FENNICK_SOURCE_ROOT}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PUBLIC ${public_libs} PRIVATE ${private_libs})
  add_library(Fennick::${target} ALIAS ${target})
endfunction()

# fennick_private_pkg(<PREFIX> <pkg-config module> <Layer>): a pkg-config
# library that a layer's sources use privately. It becomes PkgConfig::<PREFIX>,
# a Requires.private of fennick.pc, and is looked up again by the installed
# CMake package for consumers of the static library.
macro(fennick_private_pkg prefix module layer)
  pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${module})
  list(APPEND FENNICK_${layer}_PRIVATE_LIBS PkgConfig::${prefix})
  list(APPEND FENNICK_PRIVATE_PKG_MODULES "${prefix}=${module}")
endmacro()
