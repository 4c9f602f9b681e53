# libjwt: Debian ships 1.x (PEM keys, jwt_new and jwt_encode_str), OpenWrt's
# package feed 3.x (JSON Web Keys and the token builder). Whoever links
# PkgConfig::JWT compiles with CBSD_LIBJWT3=1 against 3.x, and the CPI signing
# code picks its libjwt calls by it (src/sas/jwt_token_libjwt*.cpp).
pkg_check_modules(JWT REQUIRED IMPORTED_TARGET libjwt)
if(JWT_VERSION VERSION_GREATER_EQUAL 3)
  set_property(TARGET PkgConfig::JWT APPEND PROPERTY INTERFACE_COMPILE_DEFINITIONS CBSD_LIBJWT3=1)
endif()
message(STATUS "libjwt ${JWT_VERSION} (${JWT_LINK_LIBRARIES})")
