#pragma once
struct error_code {
  const char* family;
  int code;
  const char* name;
  const char* cause;
  const char* remedy;
};
const error_code* find_error_code(const char* family, int code);
