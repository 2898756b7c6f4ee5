-- Refresh families end a fixed time after their sign-in, whatever the rotation. A spent token
-- keeps when it was spent and the token that replaced it, sealed with the spent token itself, so
-- that a rotation whose answer was lost can be answered again for a moment.
ALTER TABLE refresh_tokens ADD COLUMN family_started_at BIGINT NOT NULL DEFAULT 0;
-- Families from before this column: counted from their newest token's sign-in at the latest.
UPDATE refresh_tokens SET family_started_at = expires_at - 2592000000;
ALTER TABLE refresh_tokens ADD COLUMN used_at BIGINT NOT NULL DEFAULT 0;
ALTER TABLE refresh_tokens ADD COLUMN successor ${BLOB};
