-- ${BLOB} is the binary type of the driver: BLOB on SQLite, BYTEA on PostgreSQL.
-- Accounts, sign-in codes and refresh tokens. Codes and tokens are stored as hashes only.
CREATE TABLE users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL UNIQUE,
    password_hash TEXT,
    created_at BIGINT NOT NULL
);
CREATE TABLE login_codes (
    code_hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    expires_at BIGINT NOT NULL
);
CREATE TABLE refresh_tokens (
    token_hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    family_id TEXT NOT NULL,
    expires_at BIGINT NOT NULL,
    used INTEGER NOT NULL DEFAULT 0,
    revoked INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX refresh_tokens_family ON refresh_tokens(family_id);

CREATE TABLE interview_sessions (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    language_input TEXT NOT NULL,
    language_output TEXT NOT NULL,
    status TEXT NOT NULL,
    started_at BIGINT NOT NULL,
    ended_at BIGINT,
    stt_audio_duration_ms BIGINT
);
CREATE INDEX interview_sessions_user ON interview_sessions(user_id, started_at);
-- One row per transcript entry; a resend replaces the text only with a newer revision.
CREATE TABLE transcript_lines (
    session_id TEXT NOT NULL REFERENCES interview_sessions(id) ON DELETE CASCADE,
    entry_id TEXT NOT NULL,
    speaker TEXT NOT NULL,
    content TEXT NOT NULL,
    timestamp_ms BIGINT NOT NULL,
    confidence DOUBLE PRECISION,
    revision BIGINT NOT NULL DEFAULT 0,
    PRIMARY KEY (session_id, entry_id)
);
CREATE INDEX transcript_lines_order ON transcript_lines(session_id, timestamp_ms);

CREATE TABLE resumes (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    filename TEXT NOT NULL,
    content_type TEXT NOT NULL,
    file_data ${BLOB} NOT NULL,
    extracted_text TEXT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE INDEX resumes_user ON resumes(user_id, created_at);
CREATE TABLE job_descriptions (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    title TEXT NOT NULL,
    company TEXT NOT NULL,
    content TEXT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE INDEX job_descriptions_user ON job_descriptions(user_id, created_at);
CREATE TABLE answer_logs (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    session_id TEXT,
    question TEXT NOT NULL,
    answer TEXT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE INDEX answer_logs_user ON answer_logs(user_id, created_at);

-- Anonymous: a device id, never a user id.
CREATE TABLE telemetry_events (
    id TEXT PRIMARY KEY,
    device_id TEXT NOT NULL,
    name TEXT NOT NULL,
    category TEXT NOT NULL,
    client_ts TEXT NOT NULL,
    props TEXT NOT NULL,
    app_version TEXT NOT NULL,
    received_at BIGINT NOT NULL
);
CREATE TABLE crash_reports (
    id TEXT PRIMARY KEY,
    device_id TEXT NOT NULL,
    report TEXT NOT NULL,
    received_at BIGINT NOT NULL
);
