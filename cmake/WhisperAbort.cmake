# whisper.cpp 1.9.1 asks the abort callback only between graph computations
# (after the encoder, between decoder steps), so an abandoned recognition
# keeps the processor busy for up to a whole window. The back-ends can stop
# inside a computation (the CPU one checks after every node): hand the
# callback to each back-end of the scheduler before it computes.

set(_DICTORA_ABORT_MARK "/* dictora: abort inside the graph */")
set(_DICTORA_ABORT_SIGNATURE
  "                      bool   sched_reset = true) {\n    for (int i = 0; i < ggml_backend_sched_get_n_backends(sched); ++i) {\n        ggml_backend_t backend = ggml_backend_sched_get_backend(sched, i);\n        ggml_backend_dev_t dev = ggml_backend_get_device(backend);\n        ggml_backend_reg_t reg = dev ? ggml_backend_dev_backend_reg(dev) : nullptr;\n")
set(_DICTORA_ABORT_CALL "ggml_graph_compute_helper(sched, gf, n_threads))")

# Sets `result_var` to "patched" or "already-patched"; a tree whose text moved is an error.
function(dictora_patch_whisper_abort source result_var)
  file(READ "${source}" _text)
  string(FIND "${_text}" "${_DICTORA_ABORT_MARK}" _marked)
  if(NOT _marked EQUAL -1)
    set(${result_var} already-patched PARENT_SCOPE)
    return()
  endif()
  string(FIND "${_text}" "${_DICTORA_ABORT_SIGNATURE}" _at)
  string(FIND "${_text}" "${_DICTORA_ABORT_CALL}" _call)
  if(_at EQUAL -1 OR _call EQUAL -1)
    message(FATAL_ERROR "${source}: the graph computation helper was not found; the abort patch needs updating.")
  endif()
  string(CONCAT _with_abort
    "                      bool   sched_reset = true,\n"
    "     ggml_abort_callback   abort_callback = nullptr,\n"
    "                   void * abort_callback_data = nullptr) { ${_DICTORA_ABORT_MARK}\n"
    "    for (int i = 0; i < ggml_backend_sched_get_n_backends(sched); ++i) {\n"
    "        ggml_backend_t backend = ggml_backend_sched_get_backend(sched, i);\n"
    "        ggml_backend_dev_t dev = ggml_backend_get_device(backend);\n"
    "        ggml_backend_reg_t reg = dev ? ggml_backend_dev_backend_reg(dev) : nullptr;\n"
    "        auto * fn_set_abort = (ggml_backend_set_abort_callback_t) ggml_backend_reg_get_proc_address(reg, \"ggml_backend_set_abort_callback\");\n"
    "        if (fn_set_abort) {\n"
    "            fn_set_abort(backend, abort_callback, abort_callback_data);\n"
    "        }\n")
  string(REPLACE "${_DICTORA_ABORT_SIGNATURE}" "${_with_abort}" _text "${_text}")
  string(REPLACE "${_DICTORA_ABORT_CALL}"
    "ggml_graph_compute_helper(sched, gf, n_threads, true, abort_callback, abort_callback_data))" _text "${_text}")
  file(WRITE "${source}" "${_text}")
  set(${result_var} patched PARENT_SCOPE)
endfunction()
