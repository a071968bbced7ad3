#pragma once
// Turns a voxel type id known at run time into a call of the dispatcher's instance for that type.
#include <string>

#include "host/Exceptions.h"
#include "host/VoxelTypes.h"

namespace lyn {
namespace tmpl_dispatch {

template <class... Ts>
struct TypeList {};

// The plug-in's eight voxel types, in their fixed order.
using VoxelTypeList = TypeList<unsigned char, unsigned short, unsigned int, signed char, short, int, float, double>;
// X(T) for each of the same types, in the same order: the plug-in's explicit instantiations.
#define LYN_FOR_EACH_VOXEL_TYPE(X) \
    X(unsigned char) X(unsigned short) X(unsigned int) X(signed char) X(short) X(int) X(float) X(double)

template <class List, class Dispatcher>
struct Visitor1Args;

template <class Dispatcher, class... Ts>
struct Visitor1Args<TypeList<Ts...>, Dispatcher> {
    // Calls Dispatcher::run<T>(args...) for the T whose id is typeId. Ids 10 and 11 return at once,
    // doing nothing; any other id outside the list raises RuntimeError.
    template <class... Args>
    void operator()(int typeId, Args&&... args) const {
        const bool done =
            ((typeId == static_cast<int>(voxelTypeOf<Ts>()) ? (Dispatcher::template run<Ts>(args...), true) : false) ||
             ...);
        if (done || typeId == 10 || typeId == 11) return;
        Exception::ExceptionInfo info;
        info.file = "Core/private/TmplDispatch/Visitor1Args";
        info.line = 139;
        info.message = "Invalid type in Visitor1Args : " + std::to_string(typeId);
        throw RuntimeError(info);
    }
};

} // namespace tmpl_dispatch
} // namespace lyn
