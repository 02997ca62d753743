# What makes a fault harder to use: for everything that is built. tests/hardened.sh looks
# whether it is there.
if(NOT ZEL_HARDENED OR NOT ZEL_IS_PRODUCT)
    return()
endif()
add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64 AND CMAKE_SIZEOF_VOID_P EQUAL 8) # Linux has no landing pads for 32-bit
    add_compile_options(-fcf-protection=full)
endif()
