#include "frame/Mutex.h"

#include <cerrno>

tCondition::tCondition() {
  pthread_condattr_init(&m_Attributes);
  pthread_condattr_setclock(&m_Attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&m_Condition, &m_Attributes);
}

tCondition::~tCondition() {
  pthread_cond_destroy(&m_Condition);
  pthread_condattr_destroy(&m_Attributes);
}

void tCondition::Signal() {
  pthread_cond_signal(&m_Condition);
}

bool tCondition::WaitUntil(tMutex& mutex, const timespec& deadline) {
  return pthread_cond_timedwait(&m_Condition, &mutex.m_Mutex, &deadline) != ETIMEDOUT;
}
