#ifndef VEKMSG_TESTS_PROOF_LONG_TEXTS_H
#define VEKMSG_TESTS_PROOF_LONG_TEXTS_H

// Longer than the strings that need no memory of their own.

constexpr char kLongText[] = "a text that is longer than a string has room for inside";
constexpr char kAlpha[] = "alpha-a-component-with-a-long-name";
constexpr char kBeta[] = "beta-a-component-with-a-long-name";
constexpr char kGamma[] = "gamma-a-component-with-a-long-name";
constexpr char kNobody[] = "nobody-a-component-with-a-long-name";

constexpr char kSchema[] = "a schema text that is longer than a short string";
constexpr char kPing[] = "VEK Pinger Request Format version 1.0";
constexpr char kPong[] = "VEK Pinger Reply Format version 1.0";

#endif
