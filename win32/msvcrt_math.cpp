// msvcrt.dll: mathematics. Doubles travel the same way on both sides (on
// the stack, results in st(0)), so these are the host's functions.
#include <cmath>

#include "win32/natives.h"

namespace vrk::win32::msvcrt {

double VRKW32_CDECL acos(double x) { return std::acos(x); }
double VRKW32_CDECL asin(double x) { return std::asin(x); }
double VRKW32_CDECL atan(double x) { return std::atan(x); }
double VRKW32_CDECL atan2(double y, double x) { return std::atan2(y, x); }
double VRKW32_CDECL ceil(double x) { return std::ceil(x); }
double VRKW32_CDECL cos(double x) { return std::cos(x); }
double VRKW32_CDECL cosh(double x) { return std::cosh(x); }
double VRKW32_CDECL exp(double x) { return std::exp(x); }
double VRKW32_CDECL fabs(double x) { return std::fabs(x); }
double VRKW32_CDECL floor(double x) { return std::floor(x); }
double VRKW32_CDECL fmod(double x, double y) { return std::fmod(x, y); }
double VRKW32_CDECL frexp(double x, int* exponent) { return std::frexp(x, exponent); }
double VRKW32_CDECL ldexp(double x, int exponent) { return std::ldexp(x, exponent); }
double VRKW32_CDECL log(double x) { return std::log(x); }
double VRKW32_CDECL log10(double x) { return std::log10(x); }
double VRKW32_CDECL modf(double x, double* whole) { return std::modf(x, whole); }
double VRKW32_CDECL pow(double x, double y) { return std::pow(x, y); }
double VRKW32_CDECL sin(double x) { return std::sin(x); }
double VRKW32_CDECL sinh(double x) { return std::sinh(x); }
double VRKW32_CDECL sqrt(double x) { return std::sqrt(x); }
double VRKW32_CDECL tan(double x) { return std::tan(x); }
double VRKW32_CDECL tanh(double x) { return std::tanh(x); }
double VRKW32_CDECL _hypot(double x, double y) { return std::hypot(x, y); }
double VRKW32_CDECL _j0(double x) { return ::j0(x); }
double VRKW32_CDECL _j1(double x) { return ::j1(x); }
double VRKW32_CDECL _jn(int n, double x) { return ::jn(n, x); }
double VRKW32_CDECL _y0(double x) { return ::y0(x); }
double VRKW32_CDECL _y1(double x) { return ::y1(x); }
double VRKW32_CDECL _yn(int n, double x) { return ::yn(n, x); }

}  // namespace vrk::win32::msvcrt
