#include "kypcore/Diagnostics.h"

CDiagnostics::CDiagnostics() : m_pDiagnostics(nullptr) {}

CDiagnostics::~CDiagnostics() {
    m_pDiagnostics = nullptr;
}

void CDiagnostics::reset() {
    m_pDiagnostics = nullptr;
}
