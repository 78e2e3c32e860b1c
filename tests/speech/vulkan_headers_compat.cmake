# The Vulkan layer-settings guard against both kinds of headers, without
# building whisper.cpp: the pinned ggml-vulkan.cpp is taken from the verified
# tarball, patched as the build patches it, and the instance set-up it
# contains is compiled on its own against the installed headers.
#   cmake -DTARBALL=... -DCOMPAT=.../VulkanCompat.cmake -DCXX=... -DHEADERS=... -DWORK=... -P this
include("${COMPAT}")

function(fail message)
  message(FATAL_ERROR "FAIL: ${message}")
endfunction()

file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
set(_member "package/cpp/whisper.cpp/ggml/src/ggml-vulkan/ggml-vulkan.cpp")
file(ARCHIVE_EXTRACT INPUT "${TARBALL}" DESTINATION "${WORK}/pristine" PATTERNS "${_member}")
set(_pristine "${WORK}/pristine/${_member}")
if(NOT EXISTS "${_pristine}")
  fail("${TARBALL} holds no ${_member}")
endif()

# Header folders that only differ in whether they declare the extension.
file(WRITE "${WORK}/with/vulkan/vulkan_core.h" "#define VK_EXT_layer_settings 1\n")
file(WRITE "${WORK}/without/vulkan/vulkan_core.h" "#define VK_EXT_validation_features 1\n")

# Newer headers: the source is left exactly as upstream wrote it.
configure_file("${_pristine}" "${WORK}/newer.cpp" COPYONLY)
dictora_patch_vulkan_layer_settings("${WORK}/newer.cpp" "${WORK}/with" _result)
file(SHA256 "${_pristine}" _original)
file(SHA256 "${WORK}/newer.cpp" _after)
if(NOT _result STREQUAL "unchanged" OR NOT _original STREQUAL _after)
  fail("headers with the extension changed the source (${_result})")
endif()

# Older headers: patched once, and a second configure leaves it alone.
configure_file("${_pristine}" "${WORK}/older.cpp" COPYONLY)
dictora_patch_vulkan_layer_settings("${WORK}/older.cpp" "${WORK}/without" _result)
if(NOT _result STREQUAL "patched")
  fail("headers without the extension did not patch (${_result})")
endif()
dictora_patch_vulkan_layer_settings("${WORK}/older.cpp" "${WORK}/without" _result)
if(NOT _result STREQUAL "already-patched")
  fail("a second configure patched again (${_result})")
endif()

# The instance set-up of a source, compiled alone against the installed headers.
function(compiles source out_var)
  file(READ "${source}" _text)
  string(FIND "${_text}" "    vk::ApplicationInfo app_info{" _begin)
  string(FIND "${_text}" "    vk_instance.instance = vk::createInstance(instance_create_info);" _end)
  if(_begin EQUAL -1 OR _end EQUAL -1)
    fail("no instance set-up in ${source}")
  endif()
  math(EXPR _length "${_end} - ${_begin}")
  string(SUBSTRING "${_text}" ${_begin} ${_length} _block)
  get_filename_component(_name "${source}" NAME_WE)
  set(_unit "${WORK}/${_name}-instance.cpp")
  file(WRITE "${_unit}"
    "#include <vulkan/vulkan.hpp>\n#include <cstdlib>\n#include <vector>\n"
    "static bool ggml_vk_instance_layer_settings_available() { return false; }\n"
    "static bool ggml_vk_instance_debug_utils_ext_available(const std::vector<vk::ExtensionProperties> &) { return false; }\n"
    "vk::Instance dictora_instance(uint32_t api_version) {\n")
  file(APPEND "${_unit}" "${_block}")
  file(APPEND "${_unit}" "    return vk::createInstance(instance_create_info);\n}\n")
  execute_process(COMMAND "${CXX}" -std=c++17 -fsyntax-only -I "${HEADERS}" "${_unit}"
    RESULT_VARIABLE _rc OUTPUT_VARIABLE _out ERROR_VARIABLE _err)
  if(_rc EQUAL 0)
    set(${out_var} TRUE PARENT_SCOPE)
  else()
    string(SUBSTRING "${_err}" 0 600 _err)
    message(STATUS "${_name}: does not compile against ${HEADERS}:\n${_err}")
    set(${out_var} FALSE PARENT_SCOPE)
  endif()
endfunction()

dictora_vulkan_headers_have_layer_settings("${HEADERS}" _installed_have)
compiles("${WORK}/older.cpp" _patched_ok)
if(NOT _patched_ok)
  fail("the patched source does not compile against ${HEADERS}")
endif()
compiles("${_pristine}" _pristine_ok)
if(_installed_have AND NOT _pristine_ok)
  fail("upstream's source does not compile against ${HEADERS}, which have the extension")
endif()
if(NOT _installed_have AND _pristine_ok)
  fail("upstream's source compiled against ${HEADERS} without the extension: this check proves nothing")
endif()
message(STATUS "installed headers ${HEADERS}: extension ${_installed_have}; patched source compiles; upstream's source compiles: ${_pristine_ok}")
