# Warnings apply to our own targets only, never to the system headers.
function(mdx_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()
