// The directories of the installation and of the application, and the argv[0] that they
// are found with.
//
// The installation directory is the parent of the directory that holds the
// executable: "/usr" for /usr/sbin/kivtrap. The application directory is "/" and the
// application's name ("/kiv"). For the applications "tarn" and "qmo" it is the installation
// directory, once that is known.
//
// The text that a getter returns lasts for the life of the process, and the caller must not
// free it. Null means that the base is not known.
//
// Thread safety: from any thread, once _vxinit has run.
#pragma once

/// Records a copy of argv[0]. vx_get_argv0 returns the copy, or null when there is none. It
/// lasts until the next vx_set_argv0.
void vx_set_argv0(const char* argv0);
[[nodiscard]] const char* vx_get_argv0();

/// Records `argv0`, finds the installation directory with it (find_origin.h) unless it is
/// known, and returns that; null when it cannot be found, and for a null `argv0`. Only the
/// first 1023 bytes of the name of the executable's directory are used.
const char* vx_find_installdir(const char* argv0);

/// The installation directory; null while it is not known.
[[nodiscard]] const char* vx_get_installdir();

/// The application directory. Only the first call's `name` counts; with null there is none.
/// The getters below, but for vx_get_bindir, count as a call with null.
const char* find_appdir(const char* name);

/// "bin" in the installation directory.
[[nodiscard]] const char* vx_get_bindir();

/// The directory of that name in the application directory.
[[nodiscard]] const char* vx_get_applogsdir();
[[nodiscard]] const char* vx_get_coresdir();
[[nodiscard]] const char* vx_get_debugdir();
[[nodiscard]] const char* vx_get_etcdir();
[[nodiscard]] const char* vx_get_glsdir();
[[nodiscard]] const char* vx_get_indexdir();
[[nodiscard]] const char* vx_get_libdir();
[[nodiscard]] const char* vx_get_logsdir();
[[nodiscard]] const char* vx_get_mmdir();
[[nodiscard]] const char* vx_get_moddir();  // "mod"
[[nodiscard]] const char* vx_get_rapdir();
[[nodiscard]] const char* vx_get_resdir();
[[nodiscard]] const char* vx_get_tmpdir();

/// "sec" in the directory of vx_get_tmpdir; in "./" when that is null at the first call.
[[nodiscard]] const char* vx_get_securedir();
