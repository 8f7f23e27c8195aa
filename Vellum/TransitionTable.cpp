#include "Vellum/TransitionTable.h"

#include <initializer_list>

namespace vellum {

namespace {

using S = ParserState;
using A = ParserAction;

struct Range {
    int first;
    int last;
};

// EXEC leaves out EM (0x19) on purpose; SUB and ESC have rules of their own.
constexpr Range exec[] = {{0x00, 0x18}, {0x1C, 0x1F}};
constexpr Range print[] = {{0x20, 0x7E}};
constexpr int stringTerminators[] = {0x1B, 0x18, 0x1A, 0x07};

void addSet(TransitionTable& t, S state, std::initializer_list<Range> ranges, A action, S next) {
    for (Range r : ranges) t.addRange(state, r.first, r.last, action, next);
}
void addExec(TransitionTable& t, S state, A action, S next) {
    for (Range r : exec) t.addRange(state, r.first, r.last, action, next);
}
void addPrint(TransitionTable& t, S state, A action, S next) {
    for (Range r : print) t.addRange(state, r.first, r.last, action, next);
}

} // namespace

const char* parserStateName(ParserState state) {
    static constexpr const char* names[] = {
        "ground", "escape", "escapeIntermediate", "csiEntry", "csiParam", "csiIntermediate",
        "csiIgnore", "sosPmApcString", "oscString", "apcString", "dcsEntry", "dcsParam",
        "dcsIgnore", "dcsIntermediate", "dcsPassthrough", "programStatusEscape",
    };
    return names[size_t(state) & 0x0F];
}

TransitionTable buildVt500TransitionTable() {
    TransitionTable t;
    constexpr int lastAnywhereState = int(S::dcsPassthrough);
    for (int s = 0; s <= lastAnywhereState; ++s) {
        S state = S(s);
        t.addRange(state, 0x00, TransitionTable::highByte, A::error, S::ground);
        for (int b : {0x18, 0x1A, 0x99, 0x9A}) t.add(state, b, A::execute, S::ground);
        t.addRange(state, 0x80, 0x8F, A::execute, S::ground);
        t.addRange(state, 0x90, 0x97, A::execute, S::ground);
        t.add(state, 0x9C, A::ignore, S::ground);
        t.add(state, 0x1B, A::clear, S::escape);
        t.add(state, 0x9D, A::oscStart, S::oscString);
        t.add(state, 0x98, A::ignore, S::sosPmApcString);
        t.add(state, 0x9E, A::ignore, S::sosPmApcString);
        t.add(state, 0x9F, A::oscStart, S::apcString);
        t.add(state, 0x9B, A::clear, S::csiEntry);
        t.add(state, 0x90, A::clear, S::dcsEntry);
    }

    addPrint(t, S::ground, A::print, S::ground);
    addExec(t, S::ground, A::execute, S::ground);

    addExec(t, S::escape, A::execute, S::escape);
    t.add(S::escape, 0x7F, A::ignore, S::escape);
    t.add(S::escape, 0x5D, A::oscStart, S::oscString);
    t.add(S::escape, 0x5F, A::oscStart, S::apcString);
    t.add(S::escape, 0x58, A::ignore, S::sosPmApcString);
    t.add(S::escape, 0x5E, A::ignore, S::sosPmApcString);
    t.add(S::escape, 0x5B, A::clear, S::csiEntry);
    t.add(S::escape, 0x50, A::clear, S::dcsEntry);
    t.addRange(S::escape, 0x20, 0x2F, A::collect, S::escapeIntermediate);
    addSet(t, S::escape, {{0x30, 0x4F}, {0x51, 0x57}, {0x59, 0x59}, {0x5A, 0x5A}, {0x5C, 0x5C}, {0x60, 0x7E}},
           A::escDispatch, S::ground);

    addExec(t, S::escapeIntermediate, A::execute, S::escapeIntermediate);
    t.add(S::escapeIntermediate, 0x7F, A::ignore, S::escapeIntermediate);
    t.addRange(S::escapeIntermediate, 0x20, 0x2F, A::collect, S::escapeIntermediate);
    t.addRange(S::escapeIntermediate, 0x30, 0x7E, A::escDispatch, S::ground);

    addExec(t, S::csiEntry, A::execute, S::csiEntry);
    t.add(S::csiEntry, 0x7F, A::ignore, S::csiEntry);
    addSet(t, S::csiEntry, {{0x30, 0x39}, {0x3B, 0x3B}}, A::param, S::csiParam);
    t.addRange(S::csiEntry, 0x3C, 0x3F, A::collect, S::csiParam);
    t.addRange(S::csiEntry, 0x20, 0x2F, A::collect, S::csiIntermediate);
    t.addRange(S::csiEntry, 0x40, 0x7E, A::csiDispatch, S::ground);

    addExec(t, S::csiParam, A::execute, S::csiParam);
    t.add(S::csiParam, 0x7F, A::ignore, S::csiParam);
    t.addRange(S::csiParam, 0x30, 0x3B, A::param, S::csiParam);
    t.addRange(S::csiParam, 0x3C, 0x3F, A::ignore, S::csiIgnore);
    t.addRange(S::csiParam, 0x20, 0x2F, A::collect, S::csiIntermediate);
    t.addRange(S::csiParam, 0x40, 0x7E, A::csiDispatch, S::ground);

    addExec(t, S::csiIntermediate, A::execute, S::csiIntermediate);
    t.add(S::csiIntermediate, 0x7F, A::ignore, S::csiIntermediate);
    t.addRange(S::csiIntermediate, 0x20, 0x2F, A::collect, S::csiIntermediate);
    t.addRange(S::csiIntermediate, 0x30, 0x3F, A::ignore, S::csiIgnore);
    t.addRange(S::csiIntermediate, 0x40, 0x7E, A::csiDispatch, S::ground);

    addExec(t, S::csiIgnore, A::execute, S::csiIgnore);
    addSet(t, S::csiIgnore, {{0x20, 0x3F}, {0x7F, 0x7F}}, A::ignore, S::csiIgnore);
    t.addRange(S::csiIgnore, 0x40, 0x7E, A::ignore, S::ground);

    addPrint(t, S::sosPmApcString, A::ignore, S::sosPmApcString);
    addExec(t, S::sosPmApcString, A::ignore, S::sosPmApcString);
    t.add(S::sosPmApcString, 0x7F, A::ignore, S::sosPmApcString);
    t.add(S::sosPmApcString, 0x9C, A::ignore, S::ground);

    for (S state : {S::oscString, S::apcString}) {
        addExec(t, state, A::ignore, state);
        t.addRange(state, 0x1C, 0x1F, A::ignore, state);
        addPrint(t, state, A::oscPut, state);
        for (int b : {0x7F, 0x9C, 0xA0}) t.add(state, b, A::oscPut, state);
        for (int b : stringTerminators) t.add(state, b, A::oscEnd, S::ground);
    }

    addExec(t, S::dcsEntry, A::ignore, S::dcsEntry);
    t.add(S::dcsEntry, 0x7F, A::ignore, S::dcsEntry);
    t.addRange(S::dcsEntry, 0x20, 0x2F, A::collect, S::dcsIntermediate);
    t.add(S::dcsEntry, 0x3A, A::ignore, S::dcsIgnore);
    addSet(t, S::dcsEntry, {{0x30, 0x39}, {0x3B, 0x3B}}, A::param, S::dcsParam);
    t.addRange(S::dcsEntry, 0x3C, 0x3F, A::collect, S::dcsParam);
    t.addRange(S::dcsEntry, 0x40, 0x7E, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsIgnore, A::ignore, S::dcsIgnore);
    t.addRange(S::dcsIgnore, 0x20, 0x7F, A::ignore, S::dcsIgnore);

    addExec(t, S::dcsParam, A::ignore, S::dcsParam);
    t.add(S::dcsParam, 0x7F, A::ignore, S::dcsParam);
    addSet(t, S::dcsParam, {{0x30, 0x39}, {0x3B, 0x3B}}, A::param, S::dcsParam);
    addSet(t, S::dcsParam, {{0x3A, 0x3A}, {0x3C, 0x3F}}, A::ignore, S::dcsIgnore);
    t.addRange(S::dcsParam, 0x20, 0x2F, A::collect, S::dcsIntermediate);
    t.addRange(S::dcsParam, 0x40, 0x7E, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    t.add(S::dcsIntermediate, 0x7F, A::ignore, S::dcsIntermediate);
    t.addRange(S::dcsIntermediate, 0x20, 0x2F, A::collect, S::dcsIntermediate);
    t.addRange(S::dcsIntermediate, 0x30, 0x3F, A::ignore, S::dcsIgnore);
    t.addRange(S::dcsIntermediate, 0x40, 0x7E, A::dcsHook, S::dcsPassthrough);

    addExec(t, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    addPrint(t, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    t.add(S::dcsPassthrough, 0x7F, A::ignore, S::dcsPassthrough);
    t.add(S::dcsPassthrough, 0x1B, A::dcsUnhook, S::ground);
    t.add(S::dcsPassthrough, 0x9C, A::dcsUnhook, S::ground);

    t.addRange(S::programStatusEscape, 0x00, TransitionTable::highByte, A::escDispatch, S::ground);
    return t;
}

const TransitionTable& sharedVt500TransitionTable() {
    static const TransitionTable table = buildVt500TransitionTable();
    return table;
}

} // namespace vellum
