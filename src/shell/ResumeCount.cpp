#include "ResumeCount.h"

#include "APIClient.h"

#include <QPointer>

#include <stdexcept>

namespace {

QCoro::Task<qsizetype> countResumes(QPointer<APIClient> api)
{
    if (!api)
        throw std::runtime_error("no backend client");
    const auto wrapper = co_await api->fetchResumes();
    co_return wrapper.resumes.size();
}

} // namespace

OverlayViewModel::ResumeCounter ResumeCount::through(APIClient* api)
{
    return [api = QPointer(api)] { return countResumes(api); };
}
