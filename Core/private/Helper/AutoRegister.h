#pragma once
// Registration of a runner from the static initialiser of its source file.
#include "host/Algorithm.h"

// One registration object per runner: adds the runner to its class at load time and removes it at
// unload. The runner object itself is never freed.
#define LYN_AUTO_REGISTER_RUNNABLE(RunnerName, RunnerType, AlgoClass)                 \
    class AutoRegisterRunnable##RunnerName {                                           \
    public:                                                                            \
        AutoRegisterRunnable##RunnerName() {                                           \
            m_runner = nullptr;                                                        \
            if (::lyn::AlgoInfo* info = AlgoClass::getClassInfo()) {                   \
                m_runner = new RunnerType();                                           \
                info->addRunner(m_runner);                                             \
            }                                                                          \
        }                                                                              \
        ~AutoRegisterRunnable##RunnerName() {                                          \
            if (!m_runner) return;                                                     \
            if (::lyn::AlgoInfo* info = AlgoClass::getClassInfo()) info->removeRunner(m_runner); \
        }                                                                              \
        ::lyn::Runnable* m_runner;                                                     \
    };                                                                                 \
    AutoRegisterRunnable##RunnerName g_autoRegisterRunnable##RunnerName;
