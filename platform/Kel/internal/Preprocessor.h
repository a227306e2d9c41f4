// Preprocessor iteration used by the declaration macros of the framework (KEL_VALUE,
// KEL_ENUM, KEL_FLAGS). Internal: nothing outside platform/Kel should need it.
#pragma once

#define KEL_PP_PARENS ()

// Rescans its argument 4^4 = 256 times, enough for lists of well over a hundred entries.
#define KEL_PP_EXPAND(...) KEL_PP_EXPAND3(KEL_PP_EXPAND3(KEL_PP_EXPAND3(KEL_PP_EXPAND3(__VA_ARGS__))))
#define KEL_PP_EXPAND3(...) KEL_PP_EXPAND2(KEL_PP_EXPAND2(KEL_PP_EXPAND2(KEL_PP_EXPAND2(__VA_ARGS__))))
#define KEL_PP_EXPAND2(...) KEL_PP_EXPAND1(KEL_PP_EXPAND1(KEL_PP_EXPAND1(KEL_PP_EXPAND1(__VA_ARGS__))))
#define KEL_PP_EXPAND1(...) __VA_ARGS__

// KEL_PP_FOR_EACH(m, ctx, a, b, c) -> m(ctx, a) m(ctx, b) m(ctx, c)
#define KEL_PP_FOR_EACH(m, ctx, ...) \
  __VA_OPT__(KEL_PP_EXPAND(KEL_PP_FOR_EACH_STEP(m, ctx, __VA_ARGS__)))
#define KEL_PP_FOR_EACH_STEP(m, ctx, a, ...) \
  m(ctx, a) __VA_OPT__(KEL_PP_FOR_EACH_AGAIN KEL_PP_PARENS(m, ctx, __VA_ARGS__))
#define KEL_PP_FOR_EACH_AGAIN() KEL_PP_FOR_EACH_STEP

// KEL_PP_FOR_EACH_COMMA(m, ctx, a, b, c) -> m(ctx, a), m(ctx, b), m(ctx, c)
#define KEL_PP_FOR_EACH_COMMA(m, ctx, ...) \
  __VA_OPT__(KEL_PP_EXPAND(KEL_PP_FOR_EACH_COMMA_STEP(m, ctx, __VA_ARGS__)))
#define KEL_PP_FOR_EACH_COMMA_STEP(m, ctx, a, ...) \
  m(ctx, a) __VA_OPT__(, KEL_PP_FOR_EACH_COMMA_AGAIN KEL_PP_PARENS(m, ctx, __VA_ARGS__))
#define KEL_PP_FOR_EACH_COMMA_AGAIN() KEL_PP_FOR_EACH_COMMA_STEP

// Applies m to the elements of a parenthesised tuple: KEL_PP_APPLY(m, (a, b)) -> m(a, b)
#define KEL_PP_APPLY(m, tuple) m tuple

#define KEL_PP_STRINGIFY(x) KEL_PP_STRINGIFY_(x)
#define KEL_PP_STRINGIFY_(x) #x

// Counts arguments (up to 64).
#define KEL_PP_COUNT(...)                                                                   \
  KEL_PP_COUNT_(__VA_ARGS__ __VA_OPT__(, ) 64, 63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, \
                52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34,  \
                33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,  \
                14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define KEL_PP_COUNT_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, \
                      _17, _18, _19, _20, _21, _22, _23, _24, _25, _26, _27, _28, _29, _30,  \
                      _31, _32, _33, _34, _35, _36, _37, _38, _39, _40, _41, _42, _43, _44,  \
                      _45, _46, _47, _48, _49, _50, _51, _52, _53, _54, _55, _56, _57, _58,  \
                      _59, _60, _61, _62, _63, _64, N, ...)                                  \
  N
