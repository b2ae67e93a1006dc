// The five classes of registers, in the order in which records and text list them.
#pragma once

#include "inline_body.h"
#include "plugin_api.h"

#include <cstddef>

// One member for each class, of whatever somebody has to say about it.
template <class Gpr, class Fpr, class Spr, class Vmx, class Vsx> struct Register_Classes {
    Gpr gpr;
    Fpr fpr;
    Spr spr;
    Vmx vmx;
    Vsx vsx;
};
template <class Gpr, class Fpr, class Spr, class Vmx, class Vsx>
Register_Classes(Gpr, Fpr, Spr, Vmx, Vsx) -> Register_Classes<Gpr, Fpr, Spr, Vmx, Vsx>;

template <class Visit, class... Classes>
INLINE_BODY void visit_other_classes(Visit visit, const Classes &...classes)
{
    visit(classes.fpr...);
    visit(classes.spr...);
    visit(classes.vmx...);
    visit(classes.vsx...);
}

// Calls visit(gpr of each, ...), visit(fpr of each, ...) and so on.
template <class Visit, class... Classes> INLINE_BODY void for_each_class(Visit visit, const Classes &...classes)
{
    visit(classes.gpr...);
    visit_other_classes(visit, classes...);
}

// The counts of all classes but the general registers' as one number, which is 0 when they are.
INLINE_BODY int32_t other_counts(const Plugin_Inst_Registers &r)
{
    return r.fpr_num | r.spr_num | r.vmx_num | r.vsx_num;
}

// The same as for_each_class where a visit of a class without registers in `r` has no effect. Most instructions have
// general registers only.
template <class Visit, class... Classes>
INLINE_BODY void for_each_used_class(Visit visit, const Plugin_Inst_Registers &r, const Classes &...classes)
{
    if (r.gpr_num)
        visit(classes.gpr...);
    if (other_counts(r))
        visit_other_classes(visit, classes...);
}

// One class of a Plugin_Inst_Registers, where it lies. `num` is the host's count, which may exceed the capacity.
template <class Num, class Index, class Value, size_t N> struct Register_Class {
    Num &num;
    Index (&index)[N];
    Value (&value)[N];
    static constexpr int32_t capacity = N;
};
template <class Num, class Index, class Value, size_t N>
Register_Class(Num &, Index (&)[N], Value (&)[N]) -> Register_Class<Num, Index, Value, N>;

// `Registers` is a Plugin_Inst_Registers, or a const one.
template <class Registers> INLINE_BODY auto register_classes(Registers &r)
{
    return Register_Classes{
        Register_Class{r.gpr_num, r.gpr_index, r.gpr_value}, Register_Class{r.fpr_num, r.fpr_index, r.fpr_value},
        Register_Class{r.spr_num, r.spr_index, r.spr_value}, Register_Class{r.vmx_num, r.vmx_index, r.vmx_value},
        Register_Class{r.vsx_num, r.vsx_index, r.vsx_value}};
}
