# Compiler settings shared by every target of the project.

# Source paths never leak into binaries: __FILE__ is relative to the source tree.
add_compile_options(
    "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/="
    "-ffile-prefix-map=${CMAKE_BINARY_DIR}/=")

if(QZ_SANITIZE STREQUAL "fuzzer")
    # The libraries are instrumented for coverage; only the fuzz targets link libFuzzer's main.
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(QZ_SANITIZE)
    string(REPLACE ";" "," _qz_san "${QZ_SANITIZE}")
    add_compile_options(-fsanitize=${_qz_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${_qz_san})
endif()

# qz_target_warnings(target): the warning set every library, tool and test is built with.
function(qz_target_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wformat=2
        $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
        $<$<C_COMPILER_ID:GNU>:-Wshadow=local>)
    if(QZ_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
