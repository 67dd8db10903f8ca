// Times as people read them, in the browser's zone or in UTC.

function part(value, digits = 2) {
  return String(value).padStart(digits, '0');
}

function fieldsOf(time, zone) {
  const date = new Date(time);
  const utc = zone === 'utc';
  return {
    year: utc ? date.getUTCFullYear() : date.getFullYear(),
    month: (utc ? date.getUTCMonth() : date.getMonth()) + 1,
    day: utc ? date.getUTCDate() : date.getDate(),
    hour: utc ? date.getUTCHours() : date.getHours(),
    minute: utc ? date.getUTCMinutes() : date.getMinutes(),
    second: utc ? date.getUTCSeconds() : date.getSeconds(),
    ms: utc ? date.getUTCMilliseconds() : date.getMilliseconds(),
  };
}

export function dateText(time, zone) {
  const f = fieldsOf(time, zone);
  return `${part(f.year, 4)}-${part(f.month)}-${part(f.day)}`;
}

// "2026-03-01 08:00:00", with milliseconds if wanted.
export function timeText(time, zone, withMs = false) {
  const f = fieldsOf(time, zone);
  const clock = `${part(f.hour)}:${part(f.minute)}:${part(f.second)}`;
  return `${dateText(time, zone)} ${clock}${withMs ? `.${part(f.ms, 3)}` : ''}`;
}

// "2026-03-01 08:00 – 16:00": the date once if both ends have it.
export function rangeText(from, to, zone) {
  const short = to - from >= 600_000 ? 16 : 19;
  const start = timeText(from, zone).slice(0, short);
  const end = timeText(to, zone).slice(0, short);
  return dateText(from, zone) === dateText(to, zone) ? `${start} – ${end.slice(11)}` : `${start} – ${end}`;
}

// "UTC+02:00, Europe/Berlin" at a time; "UTC".
export function zoneText(time, zone) {
  if (zone === 'utc') return 'UTC';
  const offset = -new Date(time).getTimezoneOffset();
  const size = Math.abs(offset);
  const sign = offset < 0 ? '−' : '+';
  const name = Intl.DateTimeFormat().resolvedOptions().timeZone;
  const shift = `UTC${sign}${part(Math.floor(size / 60))}:${part(size % 60)}`;
  return name === 'UTC' || name === 'Etc/UTC' ? 'UTC' : `${shift}, ${name}`;
}

// "3 min", "2 h 5 min", "4 days": a length.
export function lengthText(ms) {
  const size = Math.abs(ms);
  if (size < 1000) return `${Math.round(size)} ms`;
  if (size < 60_000) return `${Number((size / 1000).toFixed(size < 10_000 ? 1 : 0))} s`;
  const minutes = Math.round(size / 60_000);
  if (minutes < 60) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  if (hours < 48) return minutes % 60 === 0 ? `${hours} h` : `${hours} h ${minutes % 60} min`;
  const days = Math.round(hours / 24);
  return days < 730 ? `${days} days` : `${(days / 365.25).toFixed(1)} years`;
}
