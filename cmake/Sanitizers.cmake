# ZO_SANITIZE=address|thread|undefined builds everything with that sanitizer. A report ends the
# program with a failure; nothing is suppressed.
if(ZO_SANITIZE)
    add_compile_options(-fsanitize=${ZO_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZO_SANITIZE})
    if(ZO_SANITIZE STREQUAL "undefined")
        add_compile_options(-fno-sanitize-recover=all)
    endif()
endif()
