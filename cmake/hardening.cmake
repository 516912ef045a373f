# What makes a fault in our programs hard to use: one place for every preset and for the packages, whose dpkg-buildflags
# of Debian 12 has only a part of it. scripts/check-hardening looks at the files that come out.
#
# rvk_fortify is apart from rvk_flags, since it makes sense only where code is optimised.
#
# Sanitizers bring checks of their own, which these would hide or contradict.
add_library(rvk_fortify INTERFACE)
if(RVK_SANITIZE)
    return()
endif()
set(in_library $<IN_LIST:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY$<SEMICOLON>MODULE_LIBRARY>)
target_compile_options(rvk_flags INTERFACE
    $<$<NOT:${in_library}>:-fPIE> -fstack-protector-strong -fstack-clash-protection)
target_link_options(rvk_flags INTERFACE $<$<NOT:${in_library}>:-pie> LINKER:-z,relro,-z,now)
if(CMAKE_CXX_FLAGS MATCHES "-O[123s]") # it needs to know objects' sizes, and warns where nothing tells them
    target_compile_options(rvk_fortify INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
# Where the processor checks jumps and returns; 32-bit ARM's have nothing of the kind, and g++ 12 no option for it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    target_compile_options(rvk_flags INTERFACE -mbranch-protection=standard)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i.86)$")
    target_compile_options(rvk_flags INTERFACE -fcf-protection)
endif()
