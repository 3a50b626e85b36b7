set(ANALYTICS_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined or thread")
if(ANALYTICS_SANITIZE)
    add_compile_options(-fsanitize=${ANALYTICS_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${ANALYTICS_SANITIZE})
endif()
