# The libraries that the layers stand on, as imported targets; all of them are Debian packages.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3>=3.37)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(ICU_I18N REQUIRED IMPORTED_TARGET icu-i18n icu-uc)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
