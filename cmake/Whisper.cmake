# whisper.cpp: an installed whisper >= 1.9 wins; otherwise the pinned upstream
# tree is taken from the npm registry (the only source registry the build
# machines reach), checked against its published integrity and built here.

option(DICTORA_WHISPER_VULKAN "Build whisper.cpp with its Vulkan back-end (GPU recognition, CPU fallback)" ON)
option(DICTORA_WHISPER_CUDA "Build whisper.cpp with its CUDA back-end" OFF)
option(DICTORA_USE_SYSTEM_WHISPER "Use an installed whisper.cpp (>= 1.9) when found" ON)

set(DICTORA_WHISPER_NPM_PACKAGE "nodejs-whisper@0.3.1")
set(DICTORA_WHISPER_TARBALL "nodejs-whisper-0.3.1.tgz")
# npm integrity sha512-ceoilUVraRuR5FnNyXpGQT2auAR48Oc3AQBEmkXnVpSn9iN6yVRzQBFCqVTGWbk6Wdi95NhvwXNzFvuR7erLWw== in hex
set(DICTORA_WHISPER_SHA512 "71ea2295456b691b91e459cdc97a46413d9ab80478f0e7370100449a45e75694a7f6237ac95473401142a954c659b93a59d8bde4d86fc1737316fb91edeacb5b")

if(DICTORA_USE_SYSTEM_WHISPER)
  # whisper's package config requires ggml's and fails hard without it, so ggml
  # is looked for first. whisper.cpp installs its version file under a name
  # find_package() does not look for; the version is checked from the variable
  # its config sets.
  find_package(ggml CONFIG QUIET)
  if(ggml_FOUND)
    find_package(whisper CONFIG QUIET)
  endif()
endif()

if(whisper_FOUND AND TARGET whisper AND WHISPER_VERSION VERSION_GREATER_EQUAL 1.9)
  message(STATUS "Dictora: using installed whisper.cpp ${WHISPER_VERSION}")
  add_library(dictora_whisper INTERFACE)
  target_link_libraries(dictora_whisper INTERFACE whisper)
  return()
elseif(TARGET whisper)
  message(FATAL_ERROR "An installed whisper.cpp ${WHISPER_VERSION} is older than 1.9; "
                      "configure with -DDICTORA_USE_SYSTEM_WHISPER=OFF to build the pinned one.")
endif()

set(_deps "${CMAKE_BINARY_DIR}/_deps")
set(_tarball "${_deps}/${DICTORA_WHISPER_TARBALL}")
set(_src "${_deps}/whisper-src")
set(_stamp "${_src}/.dictora-verified")

if(NOT EXISTS "${_stamp}")
  file(MAKE_DIRECTORY "${_deps}")
  if(EXISTS "${_tarball}")
    file(SHA512 "${_tarball}" _have)
  endif()
  if(NOT _have STREQUAL DICTORA_WHISPER_SHA512)
    find_program(NPM_EXECUTABLE npm REQUIRED)
    message(STATUS "Dictora: fetching whisper.cpp source (${DICTORA_WHISPER_NPM_PACKAGE})")
    file(REMOVE "${_tarball}")
    execute_process(
      COMMAND "${NPM_EXECUTABLE}" pack "${DICTORA_WHISPER_NPM_PACKAGE}" --silent --pack-destination "${_deps}"
      WORKING_DIRECTORY "${_deps}"
      RESULT_VARIABLE _npm_rc
      OUTPUT_QUIET)
    if(NOT _npm_rc EQUAL 0 OR NOT EXISTS "${_tarball}")
      message(FATAL_ERROR "Could not fetch ${DICTORA_WHISPER_NPM_PACKAGE} from the npm registry (exit ${_npm_rc}).")
    endif()
    file(SHA512 "${_tarball}" _have)
    if(NOT _have STREQUAL DICTORA_WHISPER_SHA512)
      file(REMOVE "${_tarball}")
      message(FATAL_ERROR "${DICTORA_WHISPER_TARBALL} failed its integrity check (sha512 ${_have}); refusing to build it.")
    endif()
  endif()
  set(_unpack "${_deps}/whisper-unpack")
  file(REMOVE_RECURSE "${_unpack}" "${_src}")
  file(ARCHIVE_EXTRACT INPUT "${_tarball}" DESTINATION "${_unpack}" PATTERNS "package/cpp/whisper.cpp")
  if(NOT EXISTS "${_unpack}/package/cpp/whisper.cpp/CMakeLists.txt")
    message(FATAL_ERROR "${DICTORA_WHISPER_TARBALL} does not hold package/cpp/whisper.cpp")
  endif()
  file(RENAME "${_unpack}/package/cpp/whisper.cpp" "${_src}")
  file(REMOVE_RECURSE "${_unpack}")
  file(WRITE "${_stamp}" "${DICTORA_WHISPER_SHA512}\n")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/WhisperPatches.cmake)
dictora_patch_whisper("${_src}" _patches)
message(STATUS "Dictora: whisper.cpp patches: ${_patches}")

# Without the Vulkan headers or glslc the build still works, CPU only.
set(_vulkan ${DICTORA_WHISPER_VULKAN})
if(_vulkan)
  find_package(Vulkan COMPONENTS glslc)
  if(NOT Vulkan_FOUND OR NOT Vulkan_glslc_FOUND)
    message(WARNING "Dictora: Vulkan headers or glslc not found; recognition will run on the CPU only. "
                    "Install glslc, libvulkan-dev and spirv-headers for the GPU back-end.")
    set(_vulkan OFF)
  else()
    include(${CMAKE_CURRENT_LIST_DIR}/VulkanCompat.cmake)
    dictora_patch_vulkan_layer_settings("${_src}/ggml/src/ggml-vulkan/ggml-vulkan.cpp" "${Vulkan_INCLUDE_DIR}" _vk_patch)
    dictora_patch_vulkan_shader_depfiles("${_src}/ggml/src/ggml-vulkan/vulkan-shaders/vulkan-shaders-gen.cpp" _vk_patch)
    message(STATUS "Dictora: Vulkan back-end on (headers ${Vulkan_INCLUDE_DIR}, layer-settings patch: ${_vk_patch})")
  endif()
endif()
set(DICTORA_WHISPER_HAS_VULKAN ${_vulkan})

set(WHISPER_BUILD_TESTS OFF CACHE BOOL "" FORCE)
set(WHISPER_BUILD_EXAMPLES OFF CACHE BOOL "" FORCE)
set(WHISPER_BUILD_SERVER OFF CACHE BOOL "" FORCE)
set(WHISPER_ALL_WARNINGS OFF CACHE BOOL "" FORCE)
set(WHISPER_CURL OFF CACHE BOOL "" FORCE)
set(WHISPER_SDL2 OFF CACHE BOOL "" FORCE)
set(GGML_CCACHE OFF CACHE BOOL "" FORCE)
set(GGML_NATIVE ON CACHE BOOL "" FORCE)
set(GGML_VULKAN ${_vulkan} CACHE BOOL "" FORCE)
set(GGML_CUDA ${DICTORA_WHISPER_CUDA} CACHE BOOL "" FORCE)
set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)
set(_saved_shared ${BUILD_SHARED_LIBS})
set(BUILD_SHARED_LIBS OFF)
# --- Portable build (the package) -------------------------------------------
# ggml's CPU code is built once per x86-64 instruction-set level as loadable
# modules and the best one for the processor is picked at start-up, so one
# binary runs without AVX2 and uses AVX-512 where present. Loadable back-ends
# need ggml and whisper as shared libraries; both go into a private folder.
option(DICTORA_PORTABLE "Build whisper.cpp for any x86-64 processor (CPU variant chosen at run time)" OFF)
if(DICTORA_PORTABLE)
  set(GGML_NATIVE OFF CACHE BOOL "" FORCE)
  set(GGML_BACKEND_DL ON CACHE BOOL "" FORCE)
  set(GGML_CPU_ALL_VARIANTS ON CACHE BOOL "" FORCE)
  set(BUILD_SHARED_LIBS ON)
else()
  set(GGML_BACKEND_DL OFF CACHE BOOL "" FORCE)
  set(GGML_CPU_ALL_VARIANTS OFF CACHE BOOL "" FORCE)
endif()
# --- end portable build ------------------------------------------------------
add_subdirectory("${_src}" "${_deps}/whisper-build" EXCLUDE_FROM_ALL SYSTEM)
set(BUILD_SHARED_LIBS ${_saved_shared})

add_library(dictora_whisper INTERFACE)
target_link_libraries(dictora_whisper INTERFACE whisper)
message(STATUS "Dictora: building whisper.cpp 1.9.1 from ${_src}")

# --- Portable build: install the shared libraries and back-end modules ------
# They live in <libdir>/dictora; the program finds the libraries through its
# run path and loads the modules from there (src/speech/GgmlBackends.cpp).
if(DICTORA_PORTABLE)
  include(GNUInstallDirs)
  set(DICTORA_PRIVATE_LIBDIR "${CMAKE_INSTALL_LIBDIR}/dictora")
  set(_modules)
  foreach(_backend IN LISTS GGML_AVAILABLE_BACKENDS)
    if(TARGET ${_backend})
      list(APPEND _modules ${_backend})
    endif()
  endforeach()
  set_target_properties(whisper ggml ggml-base ${_modules} PROPERTIES INSTALL_RPATH "\$ORIGIN")
  # Building whisper builds the modules too (ggml depends on each of them).
  install(TARGETS whisper ggml ggml-base LIBRARY DESTINATION "${DICTORA_PRIVATE_LIBDIR}" NAMELINK_SKIP
    COMPONENT dictora)
  install(TARGETS ${_modules} LIBRARY DESTINATION "${DICTORA_PRIVATE_LIBDIR}" COMPONENT dictora)
  target_compile_definitions(dictora_whisper INTERFACE DICTORA_GGML_BACKEND_DL
    DICTORA_GGML_BACKEND_RELDIR="../${DICTORA_PRIVATE_LIBDIR}")
  message(STATUS "Dictora: portable whisper.cpp, back-ends ${_modules} in ${DICTORA_PRIVATE_LIBDIR}")
endif()
# --- end portable build ------------------------------------------------------
