# Fixes to whisper.cpp 1.9.1 applied to the fetched source in the build tree.

# Replaces `find` with `replace` in `source`. A file that already holds
# `replace` was patched by an earlier configure; one that holds neither has
# moved in a new release, which stops the build rather than leave it unpatched.
# Appends "patched" or "already-patched" to `result_var`.
function(dictora_patch_source source find replace what result_var)
  file(READ "${source}" _text)
  string(FIND "${_text}" "${replace}" _done)
  if(NOT _done EQUAL -1)
    set(${result_var} ${${result_var}} already-patched PARENT_SCOPE)
    return()
  endif()
  string(FIND "${_text}" "${find}" _at)
  if(_at EQUAL -1)
    message(FATAL_ERROR "${source}: ${what} was not found; the patch needs updating.")
  endif()
  string(REPLACE "${find}" "${replace}" _text "${_text}")
  file(WRITE "${source}" "${_text}")
  set(${result_var} ${${result_var}} patched PARENT_SCOPE)
endfunction()

function(dictora_patch_whisper src result_var)
  set(_result)
  # whisper.cpp asks the abort callback only between graph computations (after
  # the encoder, between decoder steps), so an abandoned recognition keeps the
  # processor busy for up to a whole window. The back-ends can stop inside a
  # computation: hand the callback to each back-end of the scheduler first.
  dictora_patch_source("${src}/src/whisper.cpp"
    "                      bool   sched_reset = true) {\n    for (int i = 0; i < ggml_backend_sched_get_n_backends(sched); ++i) {\n        ggml_backend_t backend = ggml_backend_sched_get_backend(sched, i);\n        ggml_backend_dev_t dev = ggml_backend_get_device(backend);\n        ggml_backend_reg_t reg = dev ? ggml_backend_dev_backend_reg(dev) : nullptr;\n"
    "                      bool   sched_reset = true,\n     ggml_abort_callback   abort_callback = nullptr,\n                   void * abort_callback_data = nullptr) { /* dictora: abort inside the graph */\n    for (int i = 0; i < ggml_backend_sched_get_n_backends(sched); ++i) {\n        ggml_backend_t backend = ggml_backend_sched_get_backend(sched, i);\n        ggml_backend_dev_t dev = ggml_backend_get_device(backend);\n        ggml_backend_reg_t reg = dev ? ggml_backend_dev_backend_reg(dev) : nullptr;\n        auto * fn_set_abort = (ggml_backend_set_abort_callback_t) ggml_backend_reg_get_proc_address(reg, \"ggml_backend_set_abort_callback\");\n        if (fn_set_abort) {\n            fn_set_abort(backend, abort_callback, abort_callback_data);\n        }\n"
    "the graph computation helper" _result)
  dictora_patch_source("${src}/src/whisper.cpp"
    "ggml_graph_compute_helper(sched, gf, n_threads))"
    "ggml_graph_compute_helper(sched, gf, n_threads, true, abort_callback, abort_callback_data))"
    "the graph computation helper's callers" _result)
  # The CPU back-end asks between nodes only, and one encoder matrix product
  # takes hundreds of milliseconds on two cores: each thread also asks after
  # every chunk of a product, so an abandoned recognition lets go within a chunk.
  set(_chunk "        ggml_compute_forward_mul_mat_one_chunk(params, dst, src0->type, num_rows_per_vec_dot, ir0_start, ir0_end, ir1_start, ir1_end);\n\n        if (nth >= nchunk0 * nchunk1) {\n            break;\n        }\n")
  dictora_patch_source("${src}/ggml/src/ggml-cpu/ggml-cpu.c"
    "${_chunk}"
    "${_chunk}        /* dictora: abort between chunks */\n        const struct ggml_cplan * plan = params->threadpool->cplan;\n        if (plan && plan->abort_callback && plan->abort_callback(plan->abort_callback_data)) {\n            break; // the node's result is thrown away with the graph\n        }\n"
    "the matrix product's chunk loop" _result)
  # A state whose set-up fails early (a GPU without room for the caches) is
  # freed with its decoding batch never set: free() of stack garbage. Value
  # initialisation zeroes it, so the engine can fall back to the CPU.
  dictora_patch_source("${src}/src/whisper.cpp"
    "    whisper_state * state = new whisper_state;\n"
    "    whisper_state * state = new whisper_state(); /* dictora: zeroed, freed safely on failure */\n"
    "the state's allocation" _result)
  set(${result_var} ${_result} PARENT_SCOPE)
endfunction()
