# ZO_SANITIZE=address|thread|undefined builds everything with that sanitizer. A report ends the
# program with a failure; nothing is suppressed.
if(ZO_SANITIZE)
    add_compile_options(-fsanitize=${ZO_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZO_SANITIZE})
    if(ZO_SANITIZE STREQUAL "undefined")
        add_compile_options(-fno-sanitize-recover=all)
    endif()
endif()

# ZO_FUZZ builds the fuzz targets of tests/fuzz, and everything with what they need of Clang.
if(ZO_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()
