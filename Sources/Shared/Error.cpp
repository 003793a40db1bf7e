#include "Error.h"

const char* Error::what() const noexcept
{
    m_what = description().toUtf8();
    return m_what.constData();
}
