# whisper.cpp 1.9.1's Vulkan back-end chains VkLayerSettingsCreateInfoEXT into
# its instance (for the optional validation layer). Headers older than the
# extension (Debian 12 ships 1.3.239) do not know the type, so the block is
# wrapped in a check of the extension's macro. Headers that have it compile the
# source exactly as upstream wrote it.

set(_DICTORA_VK_LAYER_BLOCK_BEGIN "    std::vector<vk::LayerSettingEXT> settings = {")
set(_DICTORA_VK_LAYER_BLOCK_END
  "    vk::InstanceCreateInfo instance_create_info(vk::InstanceCreateFlags{}, &app_info, layers, extensions, &layer_setting_info);\n")
set(_DICTORA_VK_PATCH_MARK "// dictora: VK_EXT_layer_settings guard")

# True when <header_dir>/vulkan/vulkan_core.h declares VK_EXT_layer_settings.
function(dictora_vulkan_headers_have_layer_settings header_dir out_var)
  set(_header "${header_dir}/vulkan/vulkan_core.h")
  set(_have FALSE)
  if(EXISTS "${_header}")
    file(STRINGS "${_header}" _hits REGEX "#define VK_EXT_layer_settings 1")
    if(_hits)
      set(_have TRUE)
    endif()
  endif()
  set(${out_var} ${_have} PARENT_SCOPE)
endfunction()

# Wraps the layer-settings block of `source` (ggml-vulkan.cpp) when the headers
# in `header_dir` lack the extension. Sets `result_var` to "unchanged",
# "patched" or "already-patched". A source whose block moved is an error: the
# pinned tree would have changed under us.
function(dictora_patch_vulkan_layer_settings source header_dir result_var)
  dictora_vulkan_headers_have_layer_settings("${header_dir}" _have)
  file(READ "${source}" _text)
  string(FIND "${_text}" "${_DICTORA_VK_PATCH_MARK}" _marked)
  if(NOT _marked EQUAL -1)
    set(${result_var} already-patched PARENT_SCOPE)
    return()
  endif()
  if(_have)
    set(${result_var} unchanged PARENT_SCOPE)
    return()
  endif()
  string(FIND "${_text}" "${_DICTORA_VK_LAYER_BLOCK_BEGIN}" _begin)
  string(FIND "${_text}" "${_DICTORA_VK_LAYER_BLOCK_END}" _end)
  if(_begin EQUAL -1 OR _end EQUAL -1 OR _end LESS _begin)
    message(FATAL_ERROR "${source}: the Vulkan layer-settings block was not found; the compatibility patch needs updating.")
  endif()
  string(LENGTH "${_DICTORA_VK_LAYER_BLOCK_END}" _end_length)
  math(EXPR _after "${_end} + ${_end_length}")
  math(EXPR _block_length "${_after} - ${_begin}")
  string(SUBSTRING "${_text}" 0 ${_begin} _head)
  string(SUBSTRING "${_text}" ${_begin} ${_block_length} _block)
  string(SUBSTRING "${_text}" ${_after} -1 _tail)
  # Quoted throughout: the C++ text is full of semicolons, CMake's list separator.
  string(CONCAT _patched
    "${_head}"
    "#if defined(VK_EXT_layer_settings) ${_DICTORA_VK_PATCH_MARK}\n"
    "${_block}"
    "#else\n"
    "    (void)enable_best_practice;\n"
    "    vk::InstanceCreateInfo instance_create_info(vk::InstanceCreateFlags{}, &app_info, layers, extensions);\n"
    "#endif\n"
    "${_tail}")
  file(WRITE "${source}" "${_patched}")
  set(${result_var} patched PARENT_SCOPE)
endfunction()

# The shader generator writes a shader's dependency file only when it compiles
# a variant of it. Where glslc lacks an extension (Debian 12's has no
# cooperative matrices or integer dot products) a few shaders have none, so
# Ninja found their dependency file missing at every build, generated them
# again and relinked everything that links ggml. Such a shader now gets a
# dependency file naming its source alone.
function(dictora_patch_vulkan_shader_depfiles source result_var)
  set(_result ${${result_var}})
  dictora_patch_source("${source}"
    "    if (target_cpp != \"\") {\n        write_binary_file(target_cpp, src.str());\n    }\n"
    "    if (target_cpp != \"\") {\n        write_binary_file(target_cpp, src.str());\n        if (generate_dep_file && input_filepath != \"\") { /* dictora: no variant compiled, still a dep file */\n            write_binary_file(target_cpp + \".d\", target_cpp + \": \" + input_filepath + \"\\n\");\n        }\n    }\n"
    "the generator's output step" _result)
  set(${result_var} ${_result} PARENT_SCOPE)
endfunction()
