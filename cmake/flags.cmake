# Flags of everything we compile; the module's own restrictions are in src/CMakeLists.txt.
add_library(velt_flags INTERFACE)
target_compile_options(velt_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wold-style-cast
    -Werror)
if(VELT_SANITIZE)
    add_compile_options(-fsanitize=${VELT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
    add_link_options(-fsanitize=${VELT_SANITIZE})
endif()
