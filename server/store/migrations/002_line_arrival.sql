-- Two lines can carry the same millisecond (one from each speaker); they then keep the order in
-- which they first arrived rather than the order of their random ids.
ALTER TABLE transcript_lines ADD COLUMN arrival BIGINT NOT NULL DEFAULT 0;
CREATE INDEX transcript_lines_arrival ON transcript_lines(session_id, arrival);
