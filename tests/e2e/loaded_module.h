// The module as an application loads it.
#pragma once

#include "src/front/pkcs11.h"

#include <dlfcn.h>
#include <stdexcept>

inline CK_FUNCTION_LIST* loadModule(const char* path)
{
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(dlerror());
    }
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    CK_FUNCTION_LIST* list = nullptr;
    if (getList == nullptr || getList(&list) != CKR_OK) {
        throw std::runtime_error("the module gives no function list");
    }
    return list;
}
