# vakro_library(TARGET MAP) gives a shared library its version, the number in its name that changes
# when programs must be linked anew, and the list of what it exports. It finds the others beside it.
function(vakro_library target map)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    BUILD_WITH_INSTALL_RPATH ON
    INSTALL_RPATH "$ORIGIN"
    EXPORTS ${map}
    LINK_DEPENDS ${map})
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
endfunction()
