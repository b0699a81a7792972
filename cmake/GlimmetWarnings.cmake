# Strict warnings for our own targets only; third-party headers come in as SYSTEM.
function(glimmet_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror
        -Wno-error=deprecated-declarations)
endfunction()
