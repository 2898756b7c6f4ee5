-- The interviewer's portrait of each user's practice sessions: one per user, replaced when
-- the user asks for a new one.
CREATE TABLE practice_avatars (
    user_id TEXT PRIMARY KEY REFERENCES users(id) ON DELETE CASCADE,
    avatar_key TEXT NOT NULL,
    image_png ${BLOB} NOT NULL,
    generated_at BIGINT NOT NULL
);
