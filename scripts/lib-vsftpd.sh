# Shared by the benchmarks: an anonymous vsftpd on 127.0.0.1 serving $TMP/root (writable
# directory $TMP/root/up). Installs vsftpd with apt-get when missing. Sets PORT and PID; the
# caller stops it (kill "$PID") and removes $TMP. With VSFTPD_TLS set to a PEM file holding a
# certificate and its key, it requires TLS on the login and on every data connection (explicit
# FTPS, with TLS session reuse on the data connections); with VSFTPD_LOG set to a file, it logs
# every command there ('FTP command: Client "127.0.0.1", "STOR x"').
start_vsftpd() {
  if ! command -v vsftpd >/dev/null && [ ! -x /usr/sbin/vsftpd ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO=sudo
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends vsftpd
  fi
  local vsftpd
  vsftpd=$(command -v vsftpd || echo /usr/sbin/vsftpd)
  mkdir -p "$TMP/root/up" /var/run/vsftpd/empty
  chmod 555 "$TMP/root"
  chown ftp "$TMP/root/up"
  PORT=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  cat > "$TMP/vsftpd.conf" <<CONF
listen=YES
listen_ipv6=NO
listen_address=127.0.0.1
listen_port=$PORT
background=NO
anonymous_enable=YES
no_anon_password=YES
local_enable=NO
write_enable=YES
anon_upload_enable=YES
anon_other_write_enable=YES
anon_root=$TMP/root
anon_umask=022
ftp_username=ftp
pasv_enable=YES
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
xferlog_enable=NO
dirmessage_enable=NO
secure_chroot_dir=/var/run/vsftpd/empty
CONF
  if [ -n "${VSFTPD_TLS:-}" ]; then
    printf '%s\n' ssl_enable=YES allow_anon_ssl=YES force_anon_logins_ssl=YES \
      force_anon_data_ssl=YES require_ssl_reuse=YES ssl_ciphers=HIGH \
      "rsa_cert_file=$VSFTPD_TLS" "rsa_private_key_file=$VSFTPD_TLS" >> "$TMP/vsftpd.conf"
  fi
  if [ -n "${VSFTPD_LOG:-}" ]; then
    sed -i 's/^xferlog_enable=NO$/xferlog_enable=YES/' "$TMP/vsftpd.conf"
    printf '%s\n' log_ftp_protocol=YES xferlog_std_format=NO "vsftpd_log_file=$VSFTPD_LOG" \
      >> "$TMP/vsftpd.conf"
  fi
  "$vsftpd" "$TMP/vsftpd.conf" &
  PID=$!
  for _ in $(seq 50); do
    (exec 3<>"/dev/tcp/127.0.0.1/$PORT") 2>/dev/null && break
    sleep 0.1
  done
}
