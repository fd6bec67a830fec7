// What zohost cannot begin with: a wrong option, bad data, a database it must not touch.

#ifndef KELVARA_HOST_INPUT_ERROR_H_
#define KELVARA_HOST_INPUT_ERROR_H_

#include <stdexcept>

// Its text is one line for the user; the program ends with status 2.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

#endif  // KELVARA_HOST_INPUT_ERROR_H_
