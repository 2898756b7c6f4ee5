#pragma once

#include <QString>

// A realistic resume and job description, as text taken from uploaded files: bullets, section
// titles, a contact line, a bullet wrapped over two lines.
inline QString sampleResume()
{
    return QStringLiteral(R"(Jane Doe
jane.doe@example.com | +44 20 7946 0000 | linkedin.com/in/janedoe

SUMMARY
Backend engineer with 8 years of experience building payment systems in Go and PostgreSQL.

EXPERIENCE
Senior Backend Engineer, Acme Payments, London (2019–2024)
• Led the migration of the billing service from a monolith to
Kubernetes, cutting deploy time from 2 hours to 10 minutes.
• Resolved a conflict between the product and platform teams over release dates by introducing a shared roadmap review.
• Mentored four junior engineers; two were promoted within a year.
• Designed an idempotent payment API handling 3,000 requests per second.

Software Engineer, Globex Retail, Manchester (2015–2019)
• Optimized slow PostgreSQL queries in the order pipeline, reducing p95 latency by 70%.
• Built a fraud detection rule engine in Go used by 12 merchant teams.

EDUCATION
BSc Computer Science, University of Leeds (2011–2015)

SKILLS
Go, C++, PostgreSQL, Kafka, Kubernetes, Terraform, AWS
)");
}

inline QString sampleJobDescription()
{
    return QStringLiteral(R"(Staff Platform Engineer at Initech
About the role
We are looking for an engineer to lead our move to Kubernetes and improve our deployment pipeline. You will work with teams across the company, e.g. payments and risk.
Requirements:
- 6+ years building distributed backend systems.
- Deep experience with PostgreSQL performance tuning.
- Experience mentoring engineers and leading cross-team projects.
- Familiarity with Rust and WebAssembly toolchains is a plus.
)");
}
