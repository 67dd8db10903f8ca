// Notices that the host is gone, says so, and comes back by itself.

const WAITS_MS = [1000, 2000, 3000, 5000, 8000];
const CHECK_MS = 5000;

export class Connection {
  // parts: { banner, text, retry, light }; recovered() is called when the host answers again.
  constructor(api, parts, recovered) {
    this.api = api;
    Object.assign(this, parts);
    this.recovered = recovered;
    this.failures = 0;
    this.timer = null;
    this.isUp = true;
    this.retry.addEventListener('click', () => this.tryNow());
    document.addEventListener('visibilitychange', () => {
      if (!document.hidden) this.tryNow();
    });
    this.watch();
    this.showLight();
  }

  // While all is well nothing may be read for a long time: so it is asked now and then.
  watch() {
    clearTimeout(this.timer);
    this.timer = setTimeout(() => (document.hidden ? this.watch() : this.tryNow()), CHECK_MS);
  }

  // Something was answered.
  up() {
    const wasUp = this.isUp;
    this.isUp = true;
    this.failures = 0;
    clearInterval(this.counting);
    this.banner.hidden = true;
    this.showLight();
    this.watch();
    if (!wasUp) this.recovered();
  }

  down(error) {
    if (error.kind !== 'offline' && error.kind !== 'busy') return false;
    this.isUp = false;
    const wait = WAITS_MS[Math.min(this.failures, WAITS_MS.length - 1)];
    this.failures += 1;
    this.showLight();
    this.say(error.kind, Date.now() + wait);
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.tryNow(), wait);
    return true;
  }

  async tryNow() {
    clearTimeout(this.timer);
    try {
      await this.api.ping();
      this.up();
    } catch (error) {
      if (!this.down(error)) this.up(); // it answered, if only to refuse
    }
  }

  say(kind, nextTry) {
    const what =
      kind === 'busy'
        ? 'The host has too many connections.'
        : 'The host does not answer. It may be stopped, or the network is down; what was read stays here.';
    clearInterval(this.counting);
    const show = () => {
      const left = Math.max(0, Math.ceil((nextTry - Date.now()) / 1000));
      this.text.textContent = `${what} Next try ${left === 0 ? 'now' : `in ${left} s`}.`;
    };
    show();
    this.counting = setInterval(show, 1000);
    this.banner.hidden = false;
  }

  showLight() {
    this.light.dataset.state = this.isUp ? 'up' : 'down';
    this.light.textContent = this.isUp ? 'connected' : 'no connection';
  }
}
